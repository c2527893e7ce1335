"""What a C++ source is made of, as far as the changes need to know."""

import dataclasses
import re

TOKEN = re.compile(
    r"""
    (?P<skip>\s+|//[^\n]*|/\*.*?\*/|^\#(?:[^\n]*\\\n)*[^\n]*)
  | (?P<raw>R"\((?:.|\n)*?\)")
  | (?P<string>"(?:[^"\\\n]|\\.)*")
  | (?P<char>'(?:[^'\\\n]|\\.)*')
  | (?P<number>\d[\w.]*)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<mark>::|->|\+\+|--|\+=|-=|<=|>=|==|!=|&&|\|\||.)
""",
    re.VERBOSE | re.MULTILINE | re.DOTALL,
)
CLOSES = {"(": ")", "[": "]", "{": "}"}


@dataclasses.dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int
    end: int


def tokenize(source):
    return [
        Token(m.lastgroup, m.group(), m.start(), m.end())
        for m in TOKEN.finditer(source)
        if m.lastgroup != "skip"
    ]


class Statements:
    """Finds the statements in the blocks of one source, and what groups there are."""

    def __init__(self, tokens):
        self.tokens = tokens
        self.blocks = []  # lists of (first token, index after the last)
        self.groups = []  # (opening token, closing token)
        self.read_group(-1, True)

    def opens_block(self, at):
        before = self.tokens[at - 1].text
        return (
            before in (")", "]", "else", "do", "const", "namespace", "{", "}", ";")
            or self.tokens[at - 2].text == "namespace"
        )

    def read_group(self, at, is_block):
        """Reads what the token `at` opens; returns the index of what closes it."""
        statements = []
        i = first = at + 1
        while i < len(self.tokens) and self.tokens[i].text not in (")", "]", "}"):
            text = self.tokens[i].text
            ends = is_block and text == ";"
            if text in CLOSES:
                block = text == "{" and self.opens_block(i)
                # A block ends its statement unless it is a lambda's.
                i = self.read_group(i, block)
                ends = (
                    is_block
                    and block
                    and i + 1 < len(self.tokens)
                    and self.tokens[i + 1].text not in (";", ")", ",")
                )
            i += 1
            if ends:
                statements.append((first, i))
                first = i
        self.groups.append((at, i))
        if is_block:
            self.blocks.append(statements)
        return i

    def end_of(self, at):
        return next(close for start, close in self.groups if start == at)
