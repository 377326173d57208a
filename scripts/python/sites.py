"""Where a small fault can be put into a source: the rules, and the places that they fit."""

import hashlib
from dataclasses import dataclass
from pathlib import Path

from clang.cindex import CursorKind, TokenKind

import sources

# What stands in the code, and what a hand that slips may write in its place.
OPERATORS = {
    "<": ["<=", ">="],
    "<=": ["<", ">"],
    ">": [">=", "<="],
    ">=": [">", "<"],
    "==": ["!="],
    "!=": ["=="],
    "&&": ["||"],
    "||": ["&&"],
    "+": ["-"],
    "-": ["+"],
    "*": ["+"],
    "/": ["*"],
    "%": ["/"],
    "&": ["|"],
    "|": ["&"],
    "<<": [">>"],
    ">>": ["<<"],
    "+=": ["-="],
    "-=": ["+="],
    "|=": ["&="],
    "&=": ["|="],
}
CODES = {
    "SCARD_S_SUCCESS": "SCARD_F_INTERNAL_ERROR",
    "SCARD_E_INVALID_PARAMETER": "SCARD_E_INVALID_VALUE",
    "SCARD_E_INVALID_HANDLE": "SCARD_E_INVALID_PARAMETER",
    "SCARD_E_NO_SERVICE": "SCARD_E_SERVICE_STOPPED",
}
CALLS = (CursorKind.CALL_EXPR, CursorKind.CXX_DELETE_EXPR)
ASSIGNMENTS = ("=", "+=", "-=", "|=", "&=")
FUNCTIONS = (
    CursorKind.FUNCTION_DECL,
    CursorKind.CXX_METHOD,
    CursorKind.CONSTRUCTOR,
    CursorKind.DESTRUCTOR,
    CursorKind.FUNCTION_TEMPLATE,
    CursorKind.CONVERSION_FUNCTION,
)


@dataclass(frozen=True, order=True)
class Mutant:
    """One fault: the bytes from `begin` to `end` of a file become `text`."""

    file: str
    begin: int
    end: int
    text: str
    rule: str
    line: int
    column: int  # in the line without its indentation
    function: str
    source: str  # the line as it is, without indentation
    original: str

    @property
    def room(self):
        """The folder of src/ that it is in."""
        return Path(self.file).parts[1]

    @property
    def change(self):
        """What is changed, in one line."""
        return f"{self.rule}: {shown(self.original)} -> {shown(self.text)}"

    @property
    def key(self):
        """Its name, which changes only when its function's or its line does."""
        place = (self.file, self.function, self.source, str(self.column))
        content = "\n".join((*place, self.rule, self.original, self.text))
        return hashlib.sha1(content.encode()).hexdigest()[:10]

    def apply(self, content):
        """The file's content (bytes) with the fault."""
        return content[: self.begin] + self.text.encode() + content[self.end :]


def shown(text):
    text = " ".join(text.split()) or "nothing"
    return text if len(text) <= 60 else text[:57] + "..."


class _File:
    """Collects the mutants of one file."""

    def __init__(self, path, content):
        self.path = path
        self.content = content
        self.lines = content.decode().split("\n")
        self.function = ""
        self.mutants = []

    def text(self, begin, end):
        return self.content[begin:end].decode()

    def add(self, rule, extent, text):
        if extent.start.file is None or extent.start.file.name != self.path:
            return  # a macro's own words
        begin, end = extent.start.offset, extent.end.offset
        line = extent.start.line
        source = self.lines[line - 1]
        column = extent.start.column - 1 - (len(source) - len(source.lstrip()))
        self.mutants.append(
            Mutant(self.path, begin, end, text, rule, line, column, self.function, source.strip(),
                   self.text(begin, end))
        )

    def visit(self, cursor):
        """A cursor inside of a function's body."""
        kind = cursor.kind
        children = list(cursor.get_children())
        if kind in (CursorKind.BINARY_OPERATOR, CursorKind.COMPOUND_ASSIGNMENT_OPERATOR):
            self._operator(cursor, children)
        elif kind == CursorKind.CALL_EXPR and cursor.spelling.startswith("operator"):
            self._operator(cursor, children)
        elif kind == CursorKind.UNARY_OPERATOR:
            first = next(cursor.get_tokens(), None)
            if first is not None and first.spelling == "!":
                self.add("negation lost", first.extent, "")
        elif kind == CursorKind.IF_STMT:
            self._condition(children)
        elif kind == CursorKind.CONDITIONAL_OPERATOR and len(children) == 3:
            texts = [self.text(c.extent.start.offset, c.extent.end.offset) for c in children]
            self.add("choices swapped", cursor.extent, f"{texts[0]} ? {texts[2]} : {texts[1]}")
        elif kind == CursorKind.INTEGER_LITERAL:
            self._number(cursor)
        elif kind == CursorKind.CXX_BOOL_LITERAL_EXPR:
            is_true = self.text(cursor.extent.start.offset, cursor.extent.end.offset) == "true"
            self.add("other truth", cursor.extent, "false" if is_true else "true")
        elif kind == CursorKind.RETURN_STMT:
            self._result(cursor)
        elif kind == CursorKind.CONTINUE_STMT:
            self.add("loop left", cursor.extent, "break")
        elif kind == CursorKind.COMPOUND_STMT:
            for child in children:
                self._statement(child)
        for child in children:
            self.visit(child)

    def _operator(self, cursor, children):
        if len(children) < 2:
            return
        left, right = children[0], children[-1]
        for token in cursor.get_tokens():
            offset = token.extent.start.offset
            if (
                token.kind == TokenKind.PUNCTUATION
                and token.spelling in OPERATORS
                and left.extent.end.offset <= offset < right.extent.start.offset
            ):
                for text in OPERATORS[token.spelling]:
                    self.add("other operator", token.extent, text)
                return

    def _condition(self, children):
        # An if with a variable in it, or a constexpr one, has no plain condition first.
        if children and children[0].kind.is_expression():
            extent = children[0].extent
            text = self.text(extent.start.offset, extent.end.offset)
            self.add("condition turned", extent, f"!({text})")
            self.add("condition always true", extent, f"(true || ({text}))")
            self.add("condition never true", extent, f"(false && ({text}))")

    def _number(self, cursor):
        token = next(cursor.get_tokens(), None)
        if token is None or token.spelling in ("true", "false"):
            return
        digits = token.spelling.rstrip("uUlL")
        suffix = token.spelling[len(digits) :]
        try:
            value = int(digits.replace("'", ""), 0)
        except ValueError:
            return
        self.add("other number", token.extent, f"{value + 1}{suffix}")
        if value > 1:
            self.add("other number", token.extent, f"{value - 1}{suffix}")

    def _result(self, cursor):
        tokens = list(cursor.get_tokens())
        if len(tokens) >= 2 and tokens[1].spelling in CODES:
            self.add("other result", tokens[1].extent, CODES[tokens[1].spelling])

    def _statement(self, cursor):
        text = self.text(cursor.extent.start.offset, cursor.extent.end.offset)
        if text.startswith("va_"):
            return  # does nothing where this runs, or everything
        if cursor.kind in CALLS or (
            cursor.kind in (CursorKind.BINARY_OPERATOR, CursorKind.COMPOUND_ASSIGNMENT_OPERATOR)
            and any(token.spelling in ASSIGNMENTS for token in cursor.get_tokens())
        ):
            self.add("statement lost", cursor.extent, "")
        elif cursor.kind == CursorKind.CXX_STATIC_CAST_EXPR and text.startswith("static_cast<void>"):
            self.add("statement lost", cursor.extent, "")
        elif cursor.kind == CursorKind.UNARY_OPERATOR and text[:2] in ("++", "--"):
            self.add("statement lost", cursor.extent, "")


def _bodies(cursor, path):
    """The outermost functions that stand in a file, and their bodies."""
    for child in cursor.get_children():
        place = child.location.file
        if place is None or place.name != path:
            continue
        if child.kind in FUNCTIONS:
            for part in child.get_children():
                if part.kind == CursorKind.COMPOUND_STMT:
                    yield child.spelling, part
        else:
            yield from _bodies(child, path)


def find(path, flags):
    """All mutants of a file, in its order, each once."""
    file = _File(path, Path(path).read_bytes())
    for file.function, body in _bodies(sources.parse(path, flags).cursor, path):
        file.visit(body)
    unique = {(m.begin, m.end, m.text): m for m in file.mutants}
    return sorted(unique.values())
