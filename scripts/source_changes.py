"""The small wrong changes that a C++ source can have: one operator, constant, condition or statement at a time.

Comments, texts and lines of the preprocessor are not changed. The sources are laid out by clang-format, which has a
space on both sides of every operator with two operands and on no side of the angle brackets of a template; that tells
them apart without a compiler. What does not compile is left to the compiler to find.
"""

import dataclasses
import re

TOKEN = re.compile(r"""
    (?P<space>\s+|//[^\n]*|/\*.*?\*/|^[ ]*\#(?:[^\n\\]|\\.)*(?:\\\n[^\n]*)*)
  | (?P<text>(?:u8|u|U|L)?R"(?P<end>[^(\s]*)\(.*?\)(?P=end)"|(?:u8|u|U|L)?"(?:[^"\\\n]|\\.)*"|'(?:[^'\\\n]|\\.)+')
  | (?P<number>0[xX][0-9a-fA-F']+[uUlLzZ]*|\d[\d']*(?:\.\d+)?(?:[eE][+-]?\d+)?[uUlLzZfF]*)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<mark><=>|<<=|>>=|\.\.\.|->\*|::|->|\+\+|--|<<|<=|>=|==|!=|&&|\|\||\+=|-=|\*=|/=|%=|&=|\|=|\^=|\[\[|\]\]|.)
""", re.VERBOSE | re.DOTALL | re.MULTILINE)

OPERATORS = {
    "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"], "==": ["!="], "!=": ["=="],
    "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "*": ["+"], "/": ["*"], "+=": ["-="], "-=": ["+="],
}
# Words that stand for one of two.
WORDS = {
    "true": "false", "false": "true", "exclusive": "shared", "shared": "exclusive", "min": "max", "max": "min",
    "front": "back", "back": "front", "private_directory": "private_file", "private_file": "private_directory",
}
OPENING, CLOSING = {"(", "[", "{", "[["}, {")", "]", "}", "]]"}
# Words that no call, assignment or jump begins with.
OTHER_STATEMENTS = {
    "alignas", "auto", "case", "catch", "class", "concept", "const", "constexpr", "consteval", "default", "do", "else",
    "enum", "explicit", "extern", "for", "friend", "goto", "if", "inline", "namespace", "operator", "private",
    "protected", "public", "requires", "static", "static_assert", "struct", "switch", "template", "try", "typedef",
    "typename", "union", "using", "virtual", "while",
}
# Calls whose order matters to what a crash leaves.
ORDERED = re.compile(r"flush|sync|rename|move|remove|write|commit|exchange|preserve|retire|discard|clear|retain|reset")


@dataclasses.dataclass(frozen=True)
class Token:
    kind: str
    text: str
    begin: int
    end: int


@dataclasses.dataclass(frozen=True)
class Change:
    """One part of a source's text and another text for it."""
    file: str
    line: int
    removed: tuple  # the lines before and after, without indentation
    added: tuple
    begin: int
    end: int
    replacement: str

    def applied(self, text):
        return text[:self.begin] + self.replacement + text[self.end:]

    def key(self):
        return self.file, self.removed, self.added


def tokens_of(text):
    tokens, at = [], 0
    while at < len(text):
        match = TOKEN.match(text, at)
        kind = "text" if match.lastgroup == "end" else match.lastgroup
        if kind != "space":
            tokens.append(Token(kind, match[0], at, match.end()))
        at = match.end()
    return tokens


class Finder:
    def __init__(self, file, text):
        self.file, self.text, self.tokens, self.changes = file, text, tokens_of(text), []
        self.partner = {}
        opened = []
        for i, token in enumerate(self.tokens):
            if token.kind == "mark" and token.text in OPENING:
                opened.append(i)
            elif token.kind == "mark" and token.text in CLOSING and opened:
                self.partner[i] = opened[-1]
                self.partner[opened.pop()] = i

    def word(self, i):
        return self.tokens[i].text if 0 <= i < len(self.tokens) and self.tokens[i].kind != "text" else ""

    def kind(self, i):
        return self.tokens[i].kind if 0 <= i < len(self.tokens) else ""

    def change(self, begin, end, replacement):
        """Keeps the number of lines, so that a compiler's line numbers stay as they are."""
        lost = self.text.count("\n", begin, end) - replacement.count("\n")
        replacement += "\n" * max(lost, 0)
        first = self.text.rfind("\n", 0, begin) + 1
        last = self.text.find("\n", end)
        last = len(self.text) if last < 0 else last
        stripped = lambda text: tuple(line.strip() for line in text.split("\n") if line.strip())
        removed = stripped(self.text[first:last])
        added = stripped(self.text[first:begin] + replacement + self.text[end:last])
        if removed != added:
            self.changes.append(Change(self.file, self.text.count("\n", 0, begin) + 1, removed, added, begin, end,
                                       replacement))

    def replace(self, i, replacement):
        self.change(self.tokens[i].begin, self.tokens[i].end, replacement)

    def is_spaced(self, i):
        """Whether white space is on both sides."""
        token = self.tokens[i]
        return self.text[token.begin - 1].isspace() and self.text[token.end:token.end + 1].isspace()

    def operators(self, i):
        token = self.tokens[i]
        if token.text in OPERATORS and self.is_spaced(i):
            neighbours = self.kind(i - 1), self.kind(i + 1)
            # Texts are joined by + and paths by /.
            joins = "text" in neighbours if token.text in ("+", "-") else token.text == "/" and "number" not in neighbours
            if not joins:
                for other in OPERATORS[token.text]:
                    self.replace(i, other)
        if token.text == "!":
            self.replace(i, "")
        if token.text in ("++", "--"):
            self.replace(i, "--" if token.text == "++" else "++")
        if token.text in ("&&", "||") and self.is_spaced(i):
            self.operands(i)

    def operands(self, i):
        """Leaves out what is on one side of && or ||."""
        stops = {",", ";", "?", ":", "=", "return", "||"} | ({"&&"} if self.word(i) == "&&" else set())
        right = i + 1
        while right < len(self.tokens) and self.word(right) not in stops | CLOSING:
            right = self.partner.get(right, right) + 1 if self.word(right) in OPENING else right + 1
        self.change(self.tokens[i - 1].end, self.tokens[right - 1].end, "")
        left = i - 1
        while left >= 0 and self.word(left) not in stops | OPENING:
            left = self.partner.get(left, left) - 1 if self.word(left) in CLOSING else left - 1
        self.change(self.tokens[left + 1].begin, self.tokens[i + 1].begin, "")

    def number(self, i):
        match = re.fullmatch(r"(0[xX][0-9a-fA-F']+|\d[\d']*)([uUlLzZ]*)", self.word(i))
        if not match:
            return
        digits = match[1].replace("'", "")
        value = int(digits, 16 if digits[:2].lower() == "0x" else 8 if digits[0] == "0" and len(digits) > 1 else 10)
        for other in (value + 1, value - 1):
            if other >= 0:
                self.replace(i, str(other) + match[2])

    def end_of_statement(self, i):
        """The number of the semicolon; None where there is none in this block."""
        while i < len(self.tokens):
            if self.word(i) == ";":
                return i
            if self.word(i) in CLOSING:
                return None
            i = self.partner.get(i, i) + 1 if self.word(i) in OPENING else i + 1
        return None

    def is_call_or_assignment(self, i):
        if self.word(i) in ("++", "--"):
            return True
        if self.kind(i) != "name" or self.word(i) in OTHER_STATEMENTS:
            return False
        i += 1
        while self.word(i) in ("::", ".", "->", "(", "["):
            i = self.partner.get(i, i) + 1 if self.word(i) in OPENING else i + 2
        return self.word(i) in (";", "=", "+=", "-=", "|=", "&=", "++", "--")

    def is_lock(self, i):
        return bool(re.match(r"(const )?(std::)?\w*[lL]ock(_guard|er)?(<\w+>)? \w+[({]", self.text[self.tokens[i].begin:][:80]))

    def is_early_exit(self, i, end):
        """A return that alone is the block of an `if` which more of the function follows."""
        if self.word(i - 1) != "{" or self.word(end + 1) != "}" or self.word(end + 2) in ("}", "else"):
            return False
        before = self.partner.get(i - 2) if self.word(i - 2) == ")" else None
        return before is not None and self.word(before - 1) in ("if", "constexpr")

    def statement(self, i):
        end = self.end_of_statement(i)
        if end is None:
            return
        begin, after = self.tokens[i].begin, self.tokens[end].end
        first = self.word(i)
        if first == "return":
            if self.is_early_exit(i, end):
                self.change(begin, after, "")
        elif first in ("throw", "break", "continue") or self.is_lock(i):
            self.change(begin, after, "")
        elif self.is_call_or_assignment(i):
            self.change(begin, after, "")
            second = self.end_of_statement(end + 1)
            if second is not None and self.is_call_or_assignment(end + 1):
                texts = self.text[begin:after], self.text[self.tokens[end + 1].begin:self.tokens[second].end]
                if all(ORDERED.search(text) for text in texts):
                    between = self.text[after:self.tokens[end + 1].begin]
                    if not between.strip():
                        self.change(begin, self.tokens[second].end, texts[1] + between + texts[0])

    def find(self):
        begins = True
        for i, token in enumerate(self.tokens):
            if begins and token.kind in ("name", "mark") and token.text not in ("}", "{", ";"):
                self.statement(i)
            begins = token.kind == "mark" and token.text in (";", "{", "}")
            if token.kind == "mark":
                self.operators(i)
            elif token.kind == "number":
                self.number(i)
            elif token.text in WORDS and self.word(i + 1) != "=":
                self.replace(i, WORDS[token.text])
        return list({change.applied(self.text): change for change in self.changes}.values())


def changes_of(file, text):
    """All changes of one source, in the order of its text."""
    return sorted(Finder(file, text).find(), key=lambda change: (change.begin, change.end, change.replacement))
