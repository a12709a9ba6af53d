# What the public headers declare, with the comments that stand before it; and the same of the Java
# classes whose native methods the library holds.

import os
import re

# What a declaration is for users begins behind these, and does not have these.
SPECIFIERS = re.compile(r"^(static inline|static|extern|inline|[A-Z_]+_INLINE) ")
ATTRIBUTE = re.compile(r" ?__attribute__\(\((?:[^()]|\([^()]*\))*\)\)")
# The name that is declared: of a function or of a variable.
DECLARED = re.compile(r"(~?\w+|operator\S+)(?=\()|\w+(?=(\[\w+\])*( = [^;]*)?;)")
# A function with a body, behind what a constructor initialises.
WITH_BODY = re.compile(r"([^{]*?\)(?: const)?)\s*(?::[^{]*)?\{")
# The name of a typedef, also of a pointer to a function; of another type.
TYPEDEF = re.compile(r"(?:\(\*(\w+)\)\([^)]*\)|(\w+));$")
TYPE = re.compile(r"(?:struct|enum|union) (\w+)")
KEYWORDS = re.compile(r"(Room|Returns|Fails|Owns|Blocks|Threads|Signals)(, [A-Z]\w+)*:")


class Entry:
    """Declarations that stand together, and their comment; without declarations, a comment for what
    follows; with a title alone, a heading."""

    def __init__(self, comment=(), title=""):
        self.comment = list(comment)
        self.title = title
        self.prototypes = []  # functions and variables, each in one line
        self.types = []  # the lines of each type and macro
        self.names = []  # the names declared, with their namespace or class

    def has_content(self):
        return bool(self.comment or self.prototypes or self.types or self.title)


class Header:
    def __init__(self, name):
        self.name = name
        self.entries = []

    def names(self):
        return [name for entry in self.entries for name in entry.names]


def read_header(root, name):
    with open(os.path.join(root, name), encoding="utf-8") as file:
        return Reader(name, file.read()).header


def _comments_of_lines(text):
    """/* */ comments of whole lines as // comments."""

    def converted(match):
        return "\n".join("// " + line.strip() for line in match[1].strip().split("\n"))

    return re.sub(r"^/\*(.*?)\*/$", converted, text, flags=re.M | re.S)


def _of_cxx(lines):
    """The lines that a C++ compiler sees, where __cplusplus decides; directives of other conditions
    are left out and what they guard is kept."""
    kept = []
    conditions = []
    continued = False
    for line in lines:
        directive = not continued and re.match(r"#(ifdef|ifndef|if|else|endif)\b\s*(\w*)", line)
        if directive:
            word, symbol = directive.groups()
            if word == "else":
                conditions[-1] = None if conditions[-1] is None else not conditions[-1]
            elif word == "endif":
                conditions.pop()
            elif symbol == "__cplusplus":
                conditions.append(word == "ifdef")
            else:
                conditions.append(None)
        elif False not in conditions:
            kept.append(line)
        continued = line.endswith("\\")
    return kept


class Reader:
    def __init__(self, name, text):
        self.header = Header(name)
        self._scope = []  # the names of the namespaces and classes that are open
        self._public = True
        self._entry = Entry()
        lines = _of_cxx(_comments_of_lines(text).split("\n"))
        if lines[0] == "// -*- C++ -*-":
            lines.pop(0)
        self._lines = lines
        while self._lines:
            self._line()
        self._finish()

    def _finish(self):
        if self._entry.has_content() and self._public:
            self.header.entries.append(self._entry)
        self._entry = Entry()

    def _line(self):
        line = self._lines.pop(0)
        stripped = line.strip()
        heading = re.match(r"// ---- (.*) ----$", stripped)
        if not stripped:
            self._finish()
        elif heading:
            self._finish()
            self._entry.title = heading[1]
        elif stripped.startswith("//"):
            if self._entry.prototypes or self._entry.types:
                self._finish()
            self._entry.comment.append(re.sub(r"^// ?", "", stripped))
        elif stripped.startswith("#"):
            self._macro(stripped)
        elif re.match(r'(extern "C" \{|static_assert|_Static_assert)', stripped):
            self._rest_of_statement(stripped)
        elif re.match(r"namespace \w+ \{", stripped):
            self._scope.append(re.match(r"namespace (\w+)", stripped)[1])
            if self._entry.comment:
                self._opened("namespace ")
        elif re.match(r"class \w+ \{", stripped):
            self._scope.append(re.match(r"class (\w+)", stripped)[1])
            self._opened("class ")
            self._public = False
        elif re.match(r"(public|protected|private):", stripped):
            self._finish()
            self._public = stripped == "public:"
        elif stripped.startswith("}"):
            self._finish()
            if self._scope:
                self._scope.pop()
            self._public = True
        else:
            self._declaration(line)

    def _opened(self, what):
        name = "::".join(self._scope)
        self._entry.types.append([what + name])
        self._entry.names.append(name)
        self._finish()

    def _macro(self, line):
        while line.endswith("\\"):
            line = line[:-1] + self._lines.pop(0).strip()
        macro = re.match(r"#define (\w+)(\([^)]*\))?( +\S.*)?$", line)
        # Without a value it is a guard; a name with an underscore at its end, or one that is
        # undefined again, is not for users.
        if not macro or not macro[3] or macro[1].endswith("_"):
            return
        if "#undef " + macro[1] in self._lines:
            return
        self._entry.types.append([macro[1] + macro[2] if macro[2] else line])
        self._entry.names.append(macro[1])

    def _rest_of_statement(self, line):
        while not line.rstrip().endswith((";", "{")):
            line = self._lines.pop(0)

    def _declaration(self, line):
        block = [line]
        while not self._complete(block):
            block.append(self._lines.pop(0))
        if not self._public:
            return
        indent = len(line) - len(line.lstrip())
        if re.match(r"\s*(typedef|struct|enum|union)\b", line):
            self._type([ATTRIBUTE.sub("", line[indent:]) for line in block])
        else:
            self._prototype(block, of_class=indent > 0)

    @staticmethod
    def _complete(block):
        code = " ".join(re.sub(r"//.*", "", line) for line in block).rstrip()
        code = re.sub(r'"(\\.|[^"\\])*"', "", code)
        return code.count("{") == code.count("}") and code.endswith((";", "}"))

    def _type(self, block):
        self._entry.types.append(block)
        if block[0].startswith("typedef"):
            found = TYPEDEF.search(block[-1])
            self._name(found[1] or found[2])
        elif TYPE.match(block[0]):
            self._name(TYPE.match(block[0])[1])

    def _prototype(self, block, of_class):
        code = " ".join(re.sub(r"\s*//.*", "", line).strip() for line in block)
        code = ATTRIBUTE.sub("", code).strip()
        if not of_class:
            code = SPECIFIERS.sub("", code)
        if WITH_BODY.match(code):
            code = WITH_BODY.match(code)[1] + ";"
        name = DECLARED.search(code)
        if name is None:
            raise ValueError("%s: no name in: %s" % (self.header.name, code))
        code = code[: name.start()] + "::".join(self._scope + [name[0]]) + code[name.end() :]
        remark = re.search(r"//.*$", block[0])
        if remark and len(block) == 1:
            code += "  " + remark[0]
        self._entry.prototypes.append(code)
        self._name(name[0])

    def _name(self, name):
        self._entry.names.append("::".join(self._scope + [name]))


# ---- Java ----


def read_java(path):
    """A public class: its native methods, and what the library calls them."""
    with open(path, encoding="utf-8") as file:
        text = file.read()
    package = re.search(r"^package (\w+);", text, re.M)[1]
    public = re.search(r"^public final class (\w+)", text, re.M)
    if public is None:
        return None
    name = public[1]
    header = Header("%s.%s" % (package, name))
    documented = re.findall(r"/\*\*((?:(?!\*/).)*)\*/\s*([^;{]*)", text, re.S)
    for comment, declaration in documented:
        entry = Entry(_javadoc(comment))
        native = re.search(r" native .*? (\w+)\(", declaration)
        if native:
            # As the Java Native Interface spells the names of native methods.
            symbol = "Java_%s_%s_%s" % (package, name, native[1].replace("_", "_1"))
            entry.prototypes.append(" ".join(declaration.split()) + ";")
            entry.comment.append("")
            entry.comment.append("In the library: `%s`." % symbol)
            entry.names.append(symbol)
        elif "class" in declaration:
            entry.types.append(["class " + header.name])
            entry.names.append(header.name)
        header.entries.append(entry)
    return header


def _javadoc(comment):
    lines = [re.sub(r"^\s*\* ?", "", line).rstrip() for line in comment.strip().split("\n")]
    result = []
    for line in lines:
        line = re.sub(r"\{@\w+ ([^}]*)\}", r"`\1`", line).replace("<p>", "")
        parameter = re.match(r"@param (\w+) (.*)", line)
        result.append("- `%s`: %s" % parameter.groups() if parameter else line.strip())
    return result
