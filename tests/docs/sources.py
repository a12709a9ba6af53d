"""The texts in the sources that people may get to see, each as a pattern in which "<>" stands for
what is filled in."""

import ast
import os
import re
from dataclasses import dataclass
from functools import cached_property
from pathlib import Path

HOLE = "<>"

# What only runs while the system is built: none of it is installed, so no user sees its texts.
BUILD_TOOLS = ("utils/man",)

# What the first argument that holds a text is printed by, thrown by or ends up in; the tags are
# those that the page names for it.
PRINTING = {
    "AD_ERRO": "ERRO", "AD_CRTC": "CRTC", "AD_TRCE": "TRCE", "AD_DETL": "DETL", "AD_FATAL": "CRTC",
    "write_uncopied_error": "ERRO", "Logger::warn": "ERRO", "Logger::info": "TRCE",
    "Logger::print": "TRCE", "Logger::die": "CRTC",
    "ad_debug_statement": "", "print_text": "", "ad_errorlog_printf": "",
    "ad_errorlog_vprintf": "", "ad_errorlog_printf_special": "",
    "syslog": "", "send_to_unifiedlog": "", "print_syslog": "", "errorlog_and_add_to_trace": "",
    "Exception": "exception", "UnsatisfiedLinkError": "exception",
    "say": "", "complain": "", "fail": "", "refuse": "", "print_and_exit": "", "print": "",
    "printf": "", "fprintf": "", "fputs": "", "puts": "", "perror": "", "assert": "",
    "error": "", "warnx": "", "errx": "", "err": "", "println": "",
    # gdb's commands
    "write": "", "Unavailable": "", "GdbError": "",
}  # fmt: skip
# Where texts are put together that something else prints; the compiler's are not the program's.
COMPOSING = ("snprintf", "sprintf")
COMPILE_TIME = ("static_assert", "_Static_assert")
FILLED = re.compile(r"%(?:" + HOLE + r"|[-+ #0-9.*']*(?:hh|h|ll|l|z|j|t|L)?[a-zA-Z])")
MACRO = re.compile(r"PRI\w+|[A-Z][A-Z0-9_]+")


@dataclass
class Text:
    """A text of a source. `printed`: a whole one, that a printing call gets; `composed`: a format
    of what something else prints."""

    pattern: str
    printed: bool
    composed: bool
    tag: str
    call: str
    file: str
    line: int

    @property
    def place(self):
        return f"{self.file}:{self.line}"

    @cached_property
    def tidied(self):
        return tidy(self.pattern)

    @cached_property
    def is_for_people(self):
        """Whether it must be on the page, or among those that nobody gets to see."""
        sure = self.printed or self.composed
        return has_word(self.tidied) if sure else has_words(self.tidied)


def one_line(pattern):
    """The text as one line: of several the first one with a letter stands for all."""
    lines = pattern.strip().split("\n")
    if len(lines) > 1:
        pattern = next((line for line in lines if re.search("[A-Za-z]", line)), lines[0])
    return re.sub(f"(?:{HOLE})+", HOLE, pattern.strip())


def tidy(pattern):
    """What is compared: nothing that is filled in at the ends counts, and no blanks there."""
    return re.sub(rf"^(?:{HOLE}|\s)+|(?:{HOLE}|\s)+$", "", one_line(pattern))


def with_holes(text):
    return FILLED.sub(lambda found: HOLE, text.replace("%%", "\0")).replace("\0", "%")


def has_word(pattern):
    return re.search("[A-Za-z]{2}", pattern.replace(HOLE, " ")) is not None


def has_words(pattern):
    """Whether a text is likely to be for people: two words with a blank between them."""
    return any(
        re.search(r"[A-Za-z'\")]{2}[,:;.]? +[A-Za-z(]", part) for part in pattern.split(HOLE)
    )


# ---- C, C++ and Java ----

TOKEN = re.compile(
    r"""(?P<skip>\s+|//[^\n]*|/\*.*?\*/|^[ \t]*\#[ \t]*(?:include|pragma|error|if|elif)[^\n]*)
    |R"(?P<mark>[^(]*)\((?P<raw>.*?)\)(?P=mark)"
    |"(?P<string>(?:[^"\\\n]|\\.)*)"
    |'(?:[^'\\\n]|\\.)+'
    |(?P<name>[A-Za-z_]\w*)
    |(?P<number>\.?\d(?:[\w.]|'\w)*)
    |(?P<sign>::|->|\+=|<<|[-<>=!&|+*/%^]=|&&|\|\||.)""",
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)
ESCAPES = {"n": "\n", "t": "\t", "r": "\r", "0": "\0", "a": "\a", "v": "\v", "f": "\f", "b": "\b"}


def unescaped(text):
    return re.sub(r"\\(.)", lambda m: ESCAPES.get(m.group(1), m.group(1)), text, flags=re.DOTALL)


@dataclass
class Token:
    kind: str
    text: str
    start: int
    end: int


def tokens_of(source):
    tokens = []
    for found in TOKEN.finditer(source):
        kind = found.lastgroup
        if kind in ("skip", None) and found.group()[0] != "'":
            continue
        if found.group("raw") is not None:
            kind, text = "string", found.group("raw")
        elif kind == "string":
            text = unescaped(found.group("string"))
        elif kind == "name" and found.group() in ("return", "throw", "case", "else", "new"):
            kind, text = "sign", ";"
        else:
            kind, text = kind or "number", found.group()
        tokens.append(Token(kind, text, found.start(), found.end()))
    return tokens


class Group:
    """What stands between two brackets, or on their outside: segments, each an operand chain."""

    def __init__(self, call, argument_of):
        self.call = call
        self.argument_of = argument_of
        self.segments = []  # (argument, pattern or None, position, alternatives)
        self.argument = 0
        self.begin_segment(False)

    def begin_segment(self, alternative):
        self.operands = []  # of the segment: lists of parts
        self.part = []  # of the operand: strings, None for anything else
        self.alternative = alternative
        self.position = None

    def add(self, value, position):
        if value is not None and self.position is None:
            self.position = position
        self.part.append(value)

    def plus(self):
        self.operands.append(self.part)
        self.part = []

    def end_segment(self, alternative=False):
        self.plus()
        texts = [
            "".join(part) if part and None not in part else HOLE for part in self.operands if part
        ]
        if self.position is not None and any(text != HOLE for text in texts):
            self.segments.append(
                (self.argument, "".join(texts), self.position, self.alternative or alternative)
            )
        self.begin_segment(alternative)

    def whole(self):
        """The text, when there is nothing else in the brackets."""
        if len(self.segments) == 1 and not self.segments[0][3] and self.argument == 0:
            return self.segments[0][1]
        return None


def format_of(segments):
    """The first text among the arguments, with the texts among those that it is filled with."""
    first = segments[0]
    given = {argument: text for argument, text, _, alternative in segments[1:] if not alternative}
    argument = first[0]

    def fill(found):
        nonlocal argument
        argument += 1 + found.group().count("*")
        text = given.get(argument)
        return text if text is not None and found.group()[-1] == "s" else HOLE

    return FILLED.sub(fill, first[1].replace("%%", "\0")).replace("\0", "%")


def c_texts(source, file):
    texts = []

    def line_of(position):
        return source.count("\n", 0, position) + 1

    def take(group):
        segments = group.segments
        if not segments or group.call in COMPILE_TIME:
            return
        printed = group.call in PRINTING
        composed = group.call in COMPOSING
        for number, (_, pattern, position, _) in enumerate(segments):
            first = number == 0 and not segments[0][3]
            takes_format = first and (printed or composed)
            pattern = format_of(segments) if takes_format else with_holes(pattern)
            if group.call == "perror":
                pattern += ": " + HOLE
            tag = PRINTING[group.call] if first and printed else ""
            place = (group.call or "", file, line_of(position))
            texts.append(Text(pattern, first and printed, first and composed, tag, *place))

    tokens = tokens_of(source)
    stack = [Group(None, None)]
    for index, token in enumerate(tokens):
        group = stack[-1]
        before = tokens[index - 1] if index else None
        if token.kind == "string":
            group.add(token.text, token.start)
        elif token.kind == "name" and MACRO.fullmatch(token.text) and (
            index + 1 < len(tokens) and tokens[index + 1].kind == "string"
            or before is not None and before.kind == "string"
        ):
            if not (before is not None and before.text == "define"):
                group.add(HOLE, None)
        elif token.text in ("(", "[", "{") and token.kind == "sign":
            named = token.text == "(" and before is not None and before.kind == "name"
            call = before.text if named else None
            # Other functions have these names too.
            if call in ("warn", "info", "print", "die") and tokens[index - 2].text == "::":
                call = tokens[index - 3].text + "::" + call
            if call == "assert" and tokens[index - 2].text != "define":
                texts.append(assertion(source, token, file, line_of(token.start)))
            stack.append(Group(call, group))
        elif token.text in (")", "]", "}") and token.kind == "sign":
            if len(stack) == 1:
                continue
            group.end_segment()
            stack.pop()
            text = group.whole() if group.call in ("string", "String") else None
            if text is not None:
                outer = stack[-1]
                # The type's name and its namespace in front of the bracket are no operand.
                outer.part = []
                outer.add(text, group.segments[0][2])
                continue
            take(group)
            stack[-1].add(None, None)
            if token.text == "}":
                stack[-1].end_segment()
        elif token.text == "+":
            group.plus()
        elif token.text == "<<":
            group.plus()
        elif token.text == ",":
            group.end_segment()
            group.argument += 1
        elif token.text in ("?", ":"):
            group.end_segment(alternative=True)
        elif token.text in (";", "=", "+=", "==", "!=", "&&", "||", "<", ">", "<=", ">="):
            group.end_segment()
            if group.call is None and token.text == ";":
                take(group)
                group.segments = []
                group.argument = 0
        else:
            group.add(None, None)
    for group in stack:
        group.end_segment()
        take(group)
    return [text for text in texts if text is not None]


def assertion(source, bracket, file, line):
    depth = 0
    for position in range(bracket.start, len(source)):
        depth += {"(": 1, ")": -1}.get(source[position], 0)
        if depth == 0:
            break
    expression = " ".join(source[bracket.end : position].split())
    pattern = f"Assertion `{expression}' failed."
    return Text(pattern, True, False, "assertion", "assert", file, line)


# ---- Python ----


def python_texts(source, file):
    tree = ast.parse(source)
    skipped = set()  # docstrings that nobody sees, and the parts of what was taken as a whole
    texts = []

    def pattern_of(node):
        if isinstance(node, ast.Constant):
            return node.value if isinstance(node.value, str) else HOLE
        if isinstance(node, ast.JoinedStr):
            return "".join(
                part.value if isinstance(part, ast.Constant) else HOLE for part in node.values
            )
        if isinstance(node, ast.BinOp) and isinstance(node.op, ast.Mod):
            left = pattern_of(node.left)
            return with_holes(left) if left != HOLE else HOLE
        if isinstance(node, ast.BinOp) and isinstance(node.op, ast.Add):
            return pattern_of(node.left) + pattern_of(node.right)
        return HOLE

    def leave_out(node):
        if isinstance(node, ast.BinOp):
            skipped.add(id(node))
            leave_out(node.left)
            if isinstance(node.op, ast.Add):
                leave_out(node.right)
        elif isinstance(node, (ast.Constant, ast.JoinedStr)):
            skipped.add(id(node))
            for part in getattr(node, "values", []):
                skipped.add(id(part))

    def name_of(node):
        return getattr(node, "attr", None) or getattr(node, "id", "")

    def add(node, printed, call):
        pattern = pattern_of(node)
        if pattern == HOLE:
            return
        leave_out(node)
        tag = PRINTING.get(call, "")
        texts.append(Text(with_holes(pattern), printed, False, tag, call, file, node.lineno))

    for node in ast.walk(tree):
        if isinstance(node, (ast.Module, ast.ClassDef, ast.FunctionDef)):
            first = node.body[0] if node.body else None
            if isinstance(first, ast.Expr) and isinstance(first.value, ast.Constant):
                # gdb shows those of its commands as their help.
                if any(name_of(b).endswith("Command") for b in getattr(node, "bases", [])):
                    if not node.name.endswith("Command"):
                        add(first.value, True, "help")
                skipped.add(id(first.value))
    for node in ast.walk(tree):
        if isinstance(node, ast.Call) and name_of(node.func) in PRINTING and node.args:
            add(node.args[0], True, name_of(node.func))
    for node in ast.walk(tree):
        if isinstance(node, (ast.BinOp, ast.JoinedStr, ast.Constant)) and id(node) not in skipped:
            add(node, False, "")
    return texts


# ---- Shell ----


def shell_texts(source, file):
    texts = []
    pattern = r"(?m)^\s*#.*$|\"((?:[^\"\\]|\\.)*)\"|'([^']*)'"
    for found in re.finditer(pattern, source):
        text = found.group(1) if found.group(1) is not None else found.group(2)
        if text is None:
            continue
        text = re.sub(r"\$(?:\{[^}]*\}|\([^)]*\)|\w+|[*@?#!-])", HOLE, text)
        line = source.count("\n", 0, found.start()) + 1
        texts.append(Text(with_holes(unescaped(text)), False, False, "", "", file, line))
    return texts


# ---- All of them ----


def kind_of(path):
    if path.suffix in (".cc", ".h", ".c", ".java"):
        return c_texts
    if path.suffix == ".py":
        return python_texts
    if path.suffix in (".sh", ".bash"):
        return shell_texts
    if path.suffix:
        return None
    with path.open("rb") as file:
        start = file.read(64).split(b"\n")[0]
    if start.startswith(b"// -*- C++ -*-"):
        return c_texts
    if start.startswith(b"#!"):
        return python_texts if b"python" in start else shell_texts
    return None


def files_of(root, folders):
    for folder in folders:
        for directory, _, names in sorted(os.walk(Path(root) / folder)):
            if str(Path(directory).relative_to(root)) in BUILD_TOOLS:
                continue
            for name in sorted(names):
                yield Path(directory) / name


def all_texts(root, folders=("include", "utils", "java")):
    texts = []
    for path in files_of(root, folders):
        kind = kind_of(path)
        if kind is not None:
            file = str(path.relative_to(root))
            texts += kind(path.read_text(encoding="utf-8", errors="surrogateescape"), file)
    return texts
