"""Checks that no exported function can let an exception out: applications are no C++ callers.

Whatever such a function calls is declared noexcept, as CallFrame::run is, which catches what its
body throws; or belongs to the system, which throws nothing; or stands in a try block that catches
std::exception.
"""

import re
import sys
from multiprocessing import Pool
from pathlib import Path

from clang.cindex import CursorKind, ExceptionSpecificationKind

import sources

NOTHING = (ExceptionSpecificationKind.BASIC_NOEXCEPT, ExceptionSpecificationKind.DYNAMIC_NONE)
ALL = (["const", "std", "::", "exception", "&"], ["..."])  # what a handler must take


def exports():
    """The functions behind the exported names."""
    for line in Path("src/api/winscard.def").read_text().split("EXPORTS")[1].splitlines():
        words = re.split(r"[\s=]+", line.split(";")[0].strip())
        if words[0] and words[-1] != "DATA":
            yield words[1] if len(words) > 1 and not words[1].startswith("@") else words[0]


def throws_nothing(callee):
    """@param callee the declaration of what is called; None when it is known at run time only"""
    if callee is None:
        return False
    kind = callee.exception_specification_kind
    if kind in NOTHING:
        return True
    place = callee.location.file.name if callee.location.file else ""
    if "c++" in place:
        # What a smart pointer computes for its dereference; the result is not to be had here.
        return kind == ExceptionSpecificationKind.COMPUTED_NOEXCEPT and callee.spelling == "operator*"
    return "mingw32" in place


def catches(block):
    """Whether a try block hands on nothing that the library throws."""
    for handler in block.get_children():
        if handler.kind == CursorKind.CXX_CATCH_STMT:
            taken = [token.spelling for token in handler.get_tokens()][2:7]  # behind "catch ("
            if any(taken[: len(each)] == each for each in ALL):
                return True
    return False


def leaks(cursor):
    """The places in a function's body from which an exception can get out of it."""
    for child in cursor.get_children():
        if child.kind == CursorKind.LAMBDA_EXPR:
            continue  # is run by whom it is handed to
        if child.kind == CursorKind.CXX_TRY_STMT and catches(child):
            for part in child.get_children():
                if part.kind == CursorKind.CXX_CATCH_STMT:
                    yield from leaks(part)
            continue
        words = [token.spelling for token in child.get_tokens()]
        if (
            child.kind == CursorKind.CXX_THROW_EXPR
            or (child.kind == CursorKind.CXX_NEW_EXPR and "nothrow" not in words)
            or (child.kind == CursorKind.CALL_EXPR and not throws_nothing(child.referenced))
        ):
            yield child
        yield from leaks(child)


def functions(cursor, path):
    """Those that a file defines for all the world."""
    for child in cursor.get_children():
        if child.location.file is not None and child.location.file.name == path:
            if child.kind in (CursorKind.LINKAGE_SPEC, CursorKind.UNEXPOSED_DECL):
                yield from functions(child, path)
            elif child.kind == CursorKind.FUNCTION_DECL and child.is_definition():
                yield child


def check(path, flags, names):
    """@return what was found in a file: the exported functions in it, and what is wrong"""
    found, faults = [], []
    for function in functions(sources.parse(path, flags).cursor, path):
        if function.spelling in names:
            found.append(function.spelling)
            for leak in leaks(function):
                faults.append(f"{path}:{leak.location.line}: {function.spelling} calls "
                              f"{leak.spelling or 'something'}, which may throw")
    return found, faults


def main():
    names = set(exports())
    flags = sources.compiler_flags()
    paths = [str(path) for path in sorted(Path("src").glob("**/*.cpp"))]
    paths = [path for path in paths if "WINAPI" in Path(path).read_text()]
    with Pool() as pool:
        results = pool.starmap(check, [(path, flags, names) for path in paths])
    faults = [fault for _, some in results for fault in some]
    missing = names - {name for found, _ in results for name in found}
    faults += [f"{name} is exported, and defined nowhere" for name in sorted(missing)]
    for fault in faults:
        print(fault, file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
