"""Finds the mutations of a source file: one operator, constant or statement at a time.

A tokenizer and the shape that the formatter gives the code are enough: a binary operator has a
space on either side, a template's bracket has not. A mutation that does not compile is counted as
such.
"""

import dataclasses
import random
import re

TOKEN = re.compile(
    r"""
    (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<directive>(?m:^)[ \t]*\#(?:\\\n|[^\n])*)
  | (?P<text>(?:u8|[LuU])?"(?:\\.|[^"\\\n])*"|'(?:\\.|[^'\\\n])+')
  | (?P<number>(?:0[xX][0-9a-fA-F']+|\d[\d']*(?:\.\d+)?(?:[eE][+-]?\d+)?)[uUlLfF]*)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<operator><<=|>>=|<=>|->|::|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=
      |[-+*/%&|^~!<>=?:;,.(){}\[\]])
  | (?P<space>\s+)
    """,
    re.VERBOSE | re.DOTALL,
)

OPENING = {"(": ")", "{": "}", "[": "]"}

# Operators with a space on either side, and their replacements.
BINARY = {
    "<": ("<=", ">="),
    "<=": ("<", ">"),
    ">": (">=", "<="),
    ">=": (">", "<"),
    "==": ("!=",),
    "!=": ("==",),
    "&&": ("||",),
    "||": ("&&",),
    "+": ("-",),
    "-": ("+",),
    "*": ("+",),
    "/": ("*",),
    "%": ("+",),
    "<<": (">>",),
    ">>": ("<<",),
    "&": ("|",),
    "|": ("&",),
    "^": ("&",),
    "+=": ("-=",),
    "-=": ("+=",),
    "^=": ("|=",),
    "|=": ("&=",),
    "&=": ("|=",),
    "<<=": (">>=",),
    ">>=": ("<<=",),
}
RELATIONAL = {"<", "<=", ">", ">=", "==", "!="}
LOGICAL = {"&&", "||"}
NAMES = {
    "true": "false",
    "false": "true",
    "MHD_YES": "MHD_NO",
    "MHD_NO": "MHD_YES",
    "POLLIN": "POLLOUT",
    "POLLOUT": "POLLIN",
}
# Functions of the standard library that are operators in all but name: only after "std::" or, for
# the limits of a type, after "::".
FUNCTIONS = {"min": "max", "max": "min"}

DECLARATION = re.compile(
    r"(?:(?:const|auto|static|constexpr|using|thread_local|struct|enum)\b"
    r"|(?!(?:delete|throw)\b)[\w:]+(?:<[^;=]*?>)?(?:\s*[&*]+\s*|\s+)\w+\s*[;={(\[])"
)
# A condition that declares the tested variable.
DECLARING = re.compile(r"(?:const|auto)\b|[\w:]+(?:<[^;=]*?>)?[&*]*\s+[&*]*\w+\s*=[^=]")

ACCESS = ("public", "protected", "private")
CONSTANTS = "constants"


@dataclasses.dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int

    @property
    def end(self):
        return self.start + len(self.text)


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str
    line: int
    function: str  # or CONSTANTS: outside of any
    kind: str
    start: int
    end: int
    after: str
    change: str  # for people: the code before and after

    @property
    def key(self):
        return f"{self.file}:{self.start}:{self.end}:{self.after}"


def tokenize(source):
    tokens = []
    at = 0
    while at < len(source):
        match = TOKEN.match(source, at)
        if not match:
            raise ValueError(f"cannot read {source[at:at + 30]!r}")
        if match.lastgroup not in ("comment", "directive", "space"):
            tokens.append(Token(match.lastgroup, match.group(), at))
        at = match.end()
    return tokens


class Finder:
    """Walks through the tokens of one file once."""

    def __init__(self, file, source):
        self.file = file
        self.source = source
        self.tokens = tokenize(source)
        self.closing = self.match_brackets()
        self.function = CONSTANTS
        self.mutants = []

    def match_brackets(self):
        closing, open_at = {}, []
        for i, token in enumerate(self.tokens):
            if token.kind != "operator":
                continue
            if token.text in OPENING:
                open_at.append(i)
            elif token.text in OPENING.values():
                closing[open_at.pop()] = i
        return closing

    def text(self, i):
        return self.tokens[i].text if i < len(self.tokens) else ""

    def add(self, kind, start, end, after):
        before = self.source[start:end]
        if before == after:
            return
        line_start = self.source.rfind("\n", 0, start) + 1
        line_end = self.source.find("\n", max(start, end - 1))
        line = self.source[line_start:line_end]
        changed = self.source[line_start:start] + after + self.source[end:line_end]
        if kind == "statement":
            what = f"`{one_line(before)}` -> `{one_line(after)}`"
        else:
            what = f"`{one_line(line)}` -> `{one_line(changed)}`"
        number = self.source.count("\n", 0, start) + 1
        self.mutants.append(
            Mutant(self.file, number, self.function, kind, start, end, after, what)
        )

    # --- scopes -------------------------------------------------------------------------------

    def find(self):
        self.scope(0, len(self.tokens))
        return self.mutants

    # Declarations of a namespace or a class: [i, end).
    def scope(self, i, end):
        head = i
        while i < end:
            text = self.text(i)
            if text in ("(", "["):
                i = self.closing[i] + 1
            elif text == ";":
                self.constant(head, i)
                i += 1
                head = i
            elif text == ":" and i == head + 1 and self.text(head) in ACCESS:
                i += 1
                head = i
            elif text == "{":
                stop = self.closing[i]
                kind = self.kind_of_block(head, i)
                if kind == "value":
                    i = stop + 1
                    continue
                if kind == "scope":
                    self.scope(i + 1, stop)
                elif kind == "function":
                    self.body(head, i, stop)
                i = stop + 1
                head = i
            else:
                i += 1

    def kind_of_block(self, head, brace):
        words = [self.text(i) for i in self.outermost(head, brace)]
        if "namespace" in words or "extern" in words:
            return "scope"
        if any(word == "=" and before != "operator"
               for before, word in zip([""] + words, words)):
            return "value"
        if "(" in words:
            return "function"
        if "enum" in words:
            return "enum"
        if "class" in words or "struct" in words or "union" in words:
            return "scope"
        return "value"

    # The positions in [head, end) that are in no bracket; the brackets themselves are.
    def outermost(self, head, end):
        i = head
        while i < end:
            yield i
            i = self.closing[i] if i in self.closing else i + 1

    # The initialiser of a constant or member.
    def constant(self, head, end):
        for i in self.outermost(head, end):
            if self.text(i) == "=" or (self.text(i) == "{" and i > head):
                self.expression(i, end)
                return

    # --- functions ----------------------------------------------------------------------------

    def body(self, head, brace, stop):
        arguments = next(
            i
            for i in self.outermost(head, brace)
            if self.text(i) == "(" and self.text(i - 1) != "void"
        )
        self.function = self.name_before(arguments, head)
        after = self.closing[arguments] + 1
        if self.text(after) == ":":
            self.expression(after, brace)
        i = brace + 1
        while i < stop:
            i = self.statement(i)
        self.function = CONSTANTS

    def name_before(self, i, head):
        begin = i - 1
        if self.tokens[begin].kind == "operator":
            begin -= 1  # operator<<
        while begin - 1 >= head and self.text(begin - 1) in ("::", "~"):
            begin -= 2 if self.text(begin - 1) == "::" else 1
        return self.source[self.tokens[begin].start : self.tokens[i].start]

    # The position after the statement that starts at i.
    def statement(self, i):
        text = self.text(i)
        if text == "{":
            stop = self.closing[i]
            i += 1
            while i < stop:
                i = self.statement(i)
            return stop + 1
        if text in ("if", "while", "switch", "for"):
            opening = i + 1
            stop = self.closing[opening]
            self.expression(opening + 1, stop)
            if text in ("if", "while"):
                self.negate(opening + 1, stop)
            i = self.statement(stop + 1)
            if text == "if" and self.text(i) == "else":
                i = self.statement(i + 1)
            return i
        if text == "do":
            i = self.statement(i + 1) + 1
            stop = self.closing[i]
            self.expression(i + 1, stop)
            self.negate(i + 1, stop)
            return stop + 2
        if text == "try":
            i = self.statement(i + 1)
            while self.text(i) == "catch":
                i = self.statement(self.closing[i + 1] + 1)
            return i
        if text in ("case", "default"):
            while self.text(i) != ":":
                i += 1
            return i + 1
        rest = self.outermost(i, len(self.tokens))
        stop = next((at for at in rest if self.text(at) == ";"), None)
        if stop is None:
            raise ValueError(f"{self.file}: no end of the statement at '{text}'")
        self.simple_statement(i, stop)
        return stop + 1

    def simple_statement(self, i, stop):
        first, last = self.tokens[i], self.tokens[stop]
        whole = self.source[first.start : last.end]
        if first.text == "return":
            if stop == i + 1:
                self.add("statement", first.start, last.end, ";")
            elif not (stop == i + 2 and self.is_constant(i + 1)):
                self.add("statement", first.start, last.end, "return {};")
        elif first.text != "using" and not DECLARATION.match(whole):
            self.add("statement", first.start, last.end, ";")
        self.expression(i, stop)

    def is_constant(self, i):
        token = self.tokens[i]
        return token.kind == "number" or token.text in NAMES or token.text == "nullptr"

    def negate(self, i, stop):
        start, end = self.tokens[i].start, self.tokens[stop].start
        condition = self.source[start:end]
        if DECLARING.match(condition):
            return
        if self.turned_round_elsewhere(i, stop):
            return
        self.add("logical", start, end, f"!({condition})")

    # Whether leaving a "!" out, or the other comparison, is the negation of [i, stop).
    def turned_round_elsewhere(self, i, stop):
        operators = {self.text(at) for at in self.outermost(i, stop)}
        return not operators & LOGICAL and bool(operators & {"!", "==", "!="})

    # --- expressions --------------------------------------------------------------------------

    def expression(self, i, stop):
        for at in range(i, stop):
            token = self.tokens[at]
            if token.kind == "number":
                for value in neighbours(token.text):
                    self.add("constant", token.start, token.end, value)
            elif token.kind == "name":
                self.name(at)
            elif token.kind == "operator":
                self.operator(at, i)

    def name(self, at):
        token = self.tokens[at]
        if token.text in NAMES:
            self.add("constant", token.start, token.end, NAMES[token.text])
        elif token.text in FUNCTIONS and self.text(at - 1) == "::":
            self.add("arithmetic", token.start, token.end, FUNCTIONS[token.text])

    def operator(self, at, first):
        token = self.tokens[at]
        around = self.source[token.start - 1] + self.source[token.end]
        if token.text == "!":
            self.add("logical", token.start, token.end, "")
        elif token.text == "~":
            self.add("arithmetic", token.start, token.end, "")
        elif token.text == "++":
            self.add("arithmetic", token.start, token.end, "--")
        elif token.text == "--":
            self.add("arithmetic", token.start, token.end, "++")
        elif token.text == "?":
            self.negate_choice(at, first)
        elif token.text in BINARY and around.isspace():
            kind = (
                "relational"
                if token.text in RELATIONAL
                else "logical" if token.text in LOGICAL else "arithmetic"
            )
            for other in BINARY[token.text]:
                self.add(kind, token.start, token.end, other)

    # The condition of a ?: begins after the nearest thing that binds less than it.
    def negate_choice(self, at, first):
        opening = {stop: start for start, stop in self.closing.items()}
        begin = at
        while begin > first:
            before = self.tokens[begin - 1]
            if before.text in OPENING or before.text in ("return", ",", "=", "+=", "-=", "?", ":"):
                break
            begin = opening.get(begin - 1, begin - 1)
        if self.turned_round_elsewhere(begin, at):
            return
        start, end = self.tokens[begin].start, self.tokens[at - 1].end
        self.add("logical", start, end, f"!({self.source[start:end]})")


def neighbours(number):
    """n + 1, n - 1 and 0, written as `number` is."""
    digits, suffix = re.fullmatch(r"(0[xX][0-9a-fA-F']+|[\d'.eE+-]+)([uUlLfF]*)", number).groups()
    digits = digits.replace("'", "")
    if "." in digits:
        value = float(digits)
        return [f"{other}{suffix}" for other in (value + 1, value - 1, 0.0)]
    if re.fullmatch("0[0-7]+", digits):
        value, form = int(digits, 8), "0{:o}".format
    else:
        value, form = int(digits, 0), hex if digits[:2].lower() == "0x" else str
    if value == 0:
        return [f"1{suffix}"]
    return [f"{form(other)}{suffix}" for other in dict.fromkeys((value + 1, value - 1, 0))]


def one_line(code):
    return " ".join(code.split())


def find_mutants(file, source):
    return Finder(file, source).find()


def in_turns(mutants, seed):
    """An order in which every function, and within it every kind, gets its turn early."""
    groups = {}
    for mutant in mutants:
        kinds = groups.setdefault((mutant.file, mutant.function), {})
        kinds.setdefault(mutant.kind, []).append(mutant)
    lines = []
    for name, kinds in sorted(groups.items()):
        chance = random.Random(f"{seed} {name}")
        rows = list(kinds.values())
        chance.shuffle(rows)
        for row in rows:
            chance.shuffle(row)
        lines.append(merge(rows))
    random.Random(seed).shuffle(lines)
    return merge(lines)


def merge(rows):
    longest = max(map(len, rows), default=0)
    return [row[i] for i in range(longest) for row in rows if i < len(row)]
