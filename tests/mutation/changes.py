"""Finds every place in a source where one small change can be made."""

import collections
import dataclasses
import pathlib
import re

from tokens import CLOSES, Statements, tokenize

ROOT = pathlib.Path(__file__).resolve().parents[2]
FILES = ["src/rfcomm_connection.cc", "src/bluez_client.cc", "src/lumso_bluetooth_plugin.cc"]
TEXTS = {file: (ROOT / file).read_text() for file in FILES}


def read_pairs(text):
    return dict(pair.split() for pair in text.split(","))


# Alone where it stands, the first of each pair gives way to the second.
MARKS = read_pairs(
    "< <=, <= <, > >=, >= >, == !=, != ==, && ||, || &&, + -, - +, ++ --, += -=, | &"
)
WORDS = read_pairs(
    """
    true false, false true, TRUE FALSE, FALSE TRUE, break continue, continue break, min max,
    INT32_MIN INT32_MAX, INT32_MAX INT32_MIN, find_first_not_of find_first_of,
    POLLIN POLLOUT, POLLOUT POLLIN, SHUT_WR SHUT_RDWR, SHUT_RDWR SHUT_WR,
    SOCK_STREAM SOCK_SEQPACKET, O_NONBLOCK 0, FD_CLOEXEC 0, EFD_CLOEXEC 0,
    EINTR EAGAIN, EBADF EIO, EINPROGRESS EALREADY, ENETUNREACH ENETDOWN, ERANGE EINVAL,
    ECONNREFUSED ECONNRESET, EHOSTUNREACH EHOSTDOWN, SIG_BLOCK SIG_UNBLOCK, SIGPIPE SIGTERM,
    G_SOURCE_REMOVE G_SOURCE_CONTINUE, G_BUS_TYPE_SYSTEM G_BUS_TYPE_SESSION,
    G_LOG_LEVEL_DEBUG G_LOG_LEVEL_INFO, G_LOG_LEVEL_WARNING G_LOG_LEVEL_MESSAGE,
    G_VARIANT_TYPE_STRING G_VARIANT_TYPE_OBJECT_PATH,
    kStateOn kStateOff, kStateOff kStateOn, kBonded kNotBonded, kNotBonded kBonded,
    kRssiUpdate kDeviceLost, kDeviceLost kRssiUpdate,
    kInvalidArgument kConnectionFailed, kConnectionFailed kInvalidArgument,
    kGreetingTimeout kReplyTimeout, kReadyTimeout kReplyTimeout, kReplyTimeout kReadyTimeout
    """
)
# A call or an assignment, as against a declaration.
EXPRESSION = re.compile(
    r"(\+\+|--|delete\b|new\b"
    r"|(?!g_auto|G_DEFINE|static_assert|return\b|if\b|for\b|while\b|switch\b)"
    r"[A-Za-z_]\w*((::|->|\.)\w+|\[[^]]*\])*\s*(\(|=(?!=)|\+=|\+\+))"
)
ASSIGNMENT = re.compile(r"[\w.>-]+ = [^()]*;")
LOCK = re.compile(r"const std::lock_guard\b")


@dataclasses.dataclass
class Mutant:
    file: str
    start: int
    end: int
    text: str  # what takes the place of start to end
    change: str = ""
    line: int = 0
    line_text: str = ""
    heading: str = ""
    function: str = ""

    def is_lock(self):
        return bool(LOCK.match(self.change))

    def key(self):
        """What names it in the list of equivalent changes."""
        return [
            ("file", self.file),
            ("in", self.function),
            ("line", self.line_text),
            ("change", self.change),
        ]

    def __str__(self):
        return f"{self.file}:{self.line}: {self.function}: {self.change}"


class Source:
    """Everything that is changed in one source file."""

    def __init__(self, file, text):
        self.file = file
        self.text = text
        self.tokens = tokenize(text)
        self.statements = Statements(self.tokens)
        self.mutants = []
        for change in (
            self.change_tokens,
            self.change_conditions,
            self.change_statements,
            self.change_choices,
        ):
            change()
        self.mutants.sort(key=lambda m: (m.start, m.end, m.text))
        self.describe()

    def add(self, start, end, text):
        if not any(a <= start < b for a, b in self.assertions()):
            self.mutants.append(Mutant(self.file, start, end, text))

    def assertions(self):
        return [m.span() for m in re.finditer(r"static_assert\([^;]*;", self.text)]

    def span(self, first, last):
        """The text from one token to before another."""
        return self.tokens[first].start, self.tokens[last - 1].end

    def change_tokens(self):
        for i, token in enumerate(self.tokens):
            line = self.text[self.text.rfind("\n", 0, token.start) + 1 : token.start]
            if token.kind == "word" and line.startswith("constexpr"):
                continue  # the name of a constant
            for text in self.replacements(i, token):
                self.add(token.start, token.end, text)
            if token.kind == "raw":
                for line in re.finditer(r"^ *<(?:arg|method)[^\n]*/>\n", token.text, re.M):
                    self.add(token.start + line.start(), token.start + line.end(), "")

    def replacements(self, i, token):
        spaced = (
            self.text[token.start - 1].isspace()
            and self.text[token.end : token.end + 1].isspace()
        )
        if token.kind == "string":
            return [token.text[:-1] + '~"']
        if token.kind == "number":
            return self.other_numbers(token)
        if token.kind == "word":
            return [WORDS[token.text]] if token.text in WORDS else []
        if token.text == "!":
            return [""]
        if token.text == "-" and not spaced and self.tokens[i + 1].kind == "number":
            return [""]
        # Without spaces it belongs to a template or a reference.
        if token.text in MARKS and (spaced or token.text in ("++", "--")):
            return [MARKS[token.text]]
        return []

    def other_numbers(self, token):
        line = self.text[self.text.rfind("\n", 0, token.start) : token.start]
        if not token.text.isdigit():
            return []
        value = int(token.text)
        # A test can tell a wait from one that is a good deal longer, no better.
        if re.search(r"seconds|Ms\b", line):
            return [str(value * 2)]
        return [str(value + 1)] + (["0"] if value == 1 else [])

    def change_conditions(self):
        """Turns what is not turned by another change of one token."""
        for i, token in enumerate(self.tokens):
            if token.text not in ("if", "while"):
                continue
            close = self.statements.end_of(i + 1)
            start, end = self.span(i + 2, close)
            condition = self.text[start:end]
            single = re.search(r"==|!=|^!", condition) and not re.search(r"&&|\|\|", condition)
            if not single and " = " not in condition:
                self.add(start, end, f"!({condition})")

    def change_statements(self):
        for block in self.statements.blocks:
            plain = []
            for n, (first, after) in enumerate(block):
                inner = self.body(first)
                start, end = self.span(inner, after)
                text = self.text[start:end]
                plain.append(inner == first and bool(EXPRESSION.match(text)))
                # Without its last statement a function would return nothing.
                is_guard = inner != first or n + 1 < len(block)
                is_guard = is_guard and re.match(r"return\b", text)
                if EXPRESSION.match(text) or LOCK.match(text) or is_guard:
                    self.add(start, end, ";")
                if n > 0 and plain[n] and plain[n - 1]:
                    before, middle = self.span(*block[n - 1])
                    if ASSIGNMENT.match(text) and ASSIGNMENT.match(self.text[before:middle]):
                        continue  # neither needs the other
                    between = self.text[middle:start]
                    self.add(before, end, text + between + self.text[before:middle])

    def body(self, first):
        """Skips what controls a statement."""
        while self.tokens[first].text in ("if", "while", "for", "else"):
            is_else = self.tokens[first].text == "else"
            first = first + 1 if is_else else self.statements.end_of(first + 1) + 1
        return first

    def change_choices(self):
        """Exchanges the two outcomes of a conditional expression."""
        for i, token in enumerate(self.tokens):
            if token.text != "?":
                continue
            colon = self.skip_to(i + 1, ":")
            after = self.skip_to(colon + 1, ")", ",", ";")
            (a, b), (c, d) = self.span(i + 1, colon), self.span(colon + 1, after)
            self.add(a, d, self.text[c:d] + self.text[b:c] + self.text[a:b])

    def skip_to(self, i, *texts):
        while self.tokens[i].text not in texts:
            i = self.statements.end_of(i) if self.tokens[i].text in CLOSES else i
            i += 1
        return i

    def describe(self):
        """Names each change by text, so that its name stays when lines move."""
        lines = self.text.split("\n")
        function, heading = [""] * len(lines), [""] * len(lines)
        for n, line in enumerate(lines):
            title = re.match(r"// -- (.*?) -", line)
            heading[n] = title.group(1) if title else heading[n - 1] if n else ""
            head = re.match(r"(?=[A-Za-z])[^;=]*?([\w~]+(?:::[\w~]+)*)\(", line)
            function[n] = head.group(1) if head else function[n - 1] if n else ""
            if not head and re.match(r"[A-Za-z]", line):
                function[n] = ""
        seen = collections.Counter()
        for mutant in self.mutants:
            n = self.text.count("\n", 0, mutant.start)
            old = " ".join(self.text[mutant.start : mutant.end].split())
            new = " ".join(mutant.text.split())
            mutant.line, mutant.line_text = n + 1, re.sub(r"\s+// .*", "", lines[n]).strip()
            mutant.heading, mutant.function = heading[n], function[n]
            mutant.change = f'{old} -> {new or "(nothing)"}'
            seen[n, mutant.change] += 1
            if seen[n, mutant.change] > 1:
                mutant.change += f" #{seen[n, mutant.change]}"


def all_mutants():
    return [mutant for file, text in TEXTS.items() for mutant in Source(file, text).mutants]
