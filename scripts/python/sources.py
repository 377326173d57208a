"""The library's sources, as the parser of clang sees them."""

import subprocess

from clang import cindex


def _output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


def compiler_flags():
    """As the sources are compiled, for the parser."""
    library = _output("x86_64-w64-mingw32-g++-posix", "-print-file-name=include/c++")
    return [
        "-resource-dir", _output("clang", "-print-resource-dir"),
        "--target=x86_64-w64-mingw32", "-std=c++20", "-Isrc", "-DNOMINMAX",
        "-DWIN32_LEAN_AND_MEAN", "-D_WIN32_WINNT=0x0602",
        "-isystem", library, "-isystem", library + "/x86_64-w64-mingw32",
    ]


def parse(path, flags):
    """@return the file as a tree. Throws when it does not compile."""
    unit = cindex.Index.create().parse(str(path), args=[*flags, "-xc++"])
    errors = [d.spelling for d in unit.diagnostics if d.severity >= cindex.Diagnostic.Error]
    if errors:
        raise RuntimeError(f"{path}: {errors[0]}")
    return unit
