# Writing man(7): escapes, input lines, the macros that the pages use, and tables that fit.

import itertools
import re
import textwrap

ROMAN, BOLD, ITALIC = "R", "B", "I"

# What a page's text may fill of a terminal of 80 columns: man leaves two at the right and indents
# by seven.
WIDTH = 71
CODE_INDENT = 2
GAP = 3  # between the columns of a table

# Characters that roff shows otherwise than they are typed.
EVERYWHERE = {"\\": r"\e", "^": r"\(ha", "~": r"\(ti", "`": r"\(ga"}
IN_CODE = {**EVERYWHERE, "'": r"\(aq", '"': r"\(dq", "-": r"\-"}
ESCAPE = re.compile(r"\\(?:\(..|\[u\w+\]|f[BIR]|[e:&\-]| )")

# Where a sentence ends within a text, and the end of a line that looks like one.
SENTENCE_GAP = re.compile(r"""([.!?](?:\\f.|[])"'])*) +(?=["(]?(?:[A-Z]|\\f[BI]))""")
SENTENCE_END = re.compile(r"""[.!?](\\f.|[])"'])*$""")


def _escaped(text, table):
    return "".join(
        table.get(c, c) if ord(c) < 128 else r"\[u%04X]" % ord(c) for c in text
    )


def text(words):
    """Running text. A hyphen that joins no two words, or stands in an option, is a minus."""
    escaped = re.sub(r"(?<!\S)-\S+", lambda option: option[0].replace("-", r"\-"),
                     _escaped(words, EVERYWHERE))
    return re.sub(r"(?<!\\)((?<![^\W\d])-|-(?![^\W\d]))", r"\\-", escaped)


def code(characters):
    """Text that is shown exactly as it is, blanks too."""
    escaped = _escaped(characters, IN_CODE).replace("  ", r"\ \ ")
    escaped = re.sub(r"""([.!?][])"']*)(?= )""", r"\1\\&", escaped)  # no sentence ends in it
    return re.sub(r"\S{50,}", lambda word: breakable(word[0]), escaped)


def breakable(name):
    """A long name that may be broken behind its separators."""
    return re.sub(r"(_|::|/|=|,|(?<=\w)\.)(?=[\w\\])", r"\1\\:", name)


def set_in(font, escaped, around=ROMAN):
    return escaped if font == around else r"\f%s%s\f%s" % (font, escaped, around)


def width(escaped):
    """How many columns an escaped text takes."""

    def shown(match):
        return "" if match[0][1] in "f:&" else "x"

    return len(ESCAPE.sub(shown, escaped))


def words_of(escaped):
    """Where lines may be broken; an escaped blank is no such place."""
    return re.split(r"(?<!\\) +", escaped.strip(" "))


def filled(escaped):
    """Input lines of text that is to be filled: a sentence begins a line."""
    lines = []
    joined = escaped.replace("\n", " ").strip()
    for sentence in SENTENCE_GAP.sub(r"\1\n", joined).split("\n"):
        line = ""
        for word in words_of(sentence):
            if line and len(line) + 1 + len(word) > 76:
                # Not the end of a sentence, whatever its last character looks like.
                lines.append(line + (r"\&" if SENTENCE_END.search(line) else ""))
                line = word
            else:
                line = line + " " + word if line else word
        lines.append(line)
    return [guarded(line) for line in lines]


def guarded(line):
    """A line that begins as a request does, as text."""
    return r"\&" + line if line[:1] in (".", "'") else line


def narrow_code(lines, room=WIDTH - CODE_INDENT):
    """Declarations; those that are too long in several lines, their comments beside or below."""
    result = []
    for line in lines:
        found = re.match(r"( *)(\S.*?[;{}>])(?: +(//.*|/\*.*\*/))?$", line)
        if not found or len(line) <= room:
            result.append(line)
            continue
        indent, statement, comment = found.groups()
        parts = textwrap.wrap(statement, room, initial_indent=indent,
                              subsequent_indent=indent + " " * 4, break_on_hyphens=False)
        if comment and len(parts[-1]) + 2 + len(comment) <= room:
            parts[-1] += "  " + comment
        elif comment:
            parts.append(indent + " " * 8 + comment)
        result += parts
    return result


def narrow_comments(lines, room=WIDTH):
    """Code lines with comments on lines of their own filled again where they are too long."""
    result = []
    for indent, run in itertools.groupby(lines, key=lambda line: re.match(r"( *)// |", line)[1]):
        run = list(run)
        if indent is None or max(map(len, run)) <= room:
            result += run
        else:
            words = " ".join(line.strip()[3:] for line in run)
            mark = indent + "// "
            result += textwrap.wrap(words, room, initial_indent=mark, subsequent_indent=mark)
    return result


class Page:
    """The body of a page as it grows. Paragraphs are separated from what stands before them, but
    not from a heading; inside a list or a description they keep its indentation."""

    def __init__(self):
        self.lines = []
        self._after_heading = True
        self._depth = 0

    def section(self, title):
        self.lines.append(".SH " + title)
        self._after_heading = True

    def subsection(self, title):
        self.lines.append(".SS " + title)
        self._after_heading = True

    def _separate(self):
        if not self._after_heading:
            self.lines.append('.IP "" 2' if self._depth else ".PP")
        self._after_heading = False

    def paragraph(self, escaped):
        self._separate()
        self.lines += filled(escaped)

    def code_block(self, code_lines):
        if self._after_heading:
            # A paragraph without text is an error; the block needs no blank line above.
            self._after_heading = False
        else:
            self._separate()
        self.lines += [".in +%dn" % CODE_INDENT, ".EX"]
        self.lines += [guarded(_escaped(line, IN_CODE)) for line in code_lines]
        self.lines += [".EE", ".in"]

    def begin_list(self):
        """A list inside of an item is indented with it."""
        if self._depth:
            self.lines.append(".RS 2")

    def end_list(self):
        if self._depth:
            self.lines.append(".RE")

    def begin_item(self, mark, indent):
        """An item of a list; what follows up to end_item belongs to it."""
        self.lines.append(".IP %s %d" % (mark, indent))
        self._after_heading = True
        self._depth += 1

    def end_item(self):
        self._depth -= 1
        self._after_heading = False

    def term(self, escaped, *descriptions):
        """A term and what there is to say about it; each description begins a line."""
        if width(escaped) <= WIDTH:
            self.lines += [".TP", guarded(escaped)]
        else:
            self.paragraph(escaped)
            self.lines.append(".RS")
        for i, description in enumerate(descriptions or [r"\&"]):
            self.lines += ([".br"] if i else []) + filled(description or r"\&")
        if width(escaped) > WIDTH:
            self.lines.append(".RE")
        self._after_heading = False

    def indented(self):
        self.lines.append(".RS 4")
        self._after_heading = True

    def outdented(self):
        self.lines.append(".RE")
        self._after_heading = False

    def declarations(self, lines):
        self._separate()
        self.lines.append(".nf")
        self.lines += [guarded(set_in(BOLD, _escaped(line, IN_CODE))) for line in lines]
        self.lines.append(".fi")

    def table(self, header, rows):
        """A table for tbl(1), its columns as wide as their texts or, where these do not fit, as
        they can be."""
        self._separate()
        rows = [[cell.replace("\n", " ") for cell in row] for row in [header] + rows]
        widths, rows = _fitting(rows)
        self.lines.append(".TS")
        formats = ["l" if w is None else "lw(%dn)" % w for w in widths]
        self.lines.append(" ".join(f.replace("l", "lB", 1) for f in formats))
        self.lines.append(" ".join(formats) + ".")
        for row in rows:
            line = []
            for cell, column in zip(row, widths):
                if column is None or width(cell) <= column:
                    # tbl draws a line for a lone one of these.
                    line.append(r"\&" + cell if cell in ("_", "=") else guarded(cell))
                else:
                    line.append("T{\n%s\nT}" % "\n".join(filled(cell)))
            self.lines += "\t".join(line).split("\n")
        self.lines.append(".TE")


def lines_a_row(rows):
    """How many lines a row of a table takes on average."""
    widths, rows = _fitting(rows)
    if None in widths:
        return 1
    return sum(max(width(c) / w for c, w in zip(row, widths)) for row in rows) / len(rows)


def _fitting(rows):
    """The widths of a table's columns, and its rows. None: as wide as its cells."""
    room = WIDTH - GAP * (len(rows[0]) - 1)
    natural = [max(map(width, column)) for column in zip(*rows)]
    if sum(natural) <= room:
        return [None] * len(natural), rows
    least = _longest_words(rows)
    if sum(least) > room:
        rows = [[breakable(cell) for cell in row] for row in rows]
        least = _longest_words(rows)
    spare = max(room - sum(least), 0)
    wanted = sum(natural) - sum(least)
    widths = [
        low + spare * (high - low) // wanted if high > low else low
        for low, high in zip(least, natural)
    ]
    return widths, rows


def _longest_words(rows):
    def longest(cell):
        return max(width(part) for word in words_of(cell) for part in word.split(r"\:"))

    return [max(map(longest, column)) for column in zip(*rows)]
