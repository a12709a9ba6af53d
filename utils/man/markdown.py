# Markdown as a man page's body. cmark-gfm reads it, as the forges do that show the docs.

import subprocess
import xml.etree.ElementTree as ElementTree

import roff
from roff import BOLD, ITALIC, ROMAN

# Where the second of two columns is wider, or rows take more lines, a list of terms reads better
# than a table.
COLUMN_LIMIT = 36
ROW_LIMIT = 3


def parsed(cmark, path):
    """The blocks of a page, as cmark-gfm tells them in XML."""
    xml = subprocess.run(
        [cmark, "--extension", "table", "--to", "xml", path],
        check=True,
        capture_output=True,
        text=True,
        encoding="utf-8",
    ).stdout
    return [block for block in ElementTree.fromstring(xml) if not is_comment(block)]


def is_comment(node):
    return kind(node) == "html_block" and node.text.startswith("<!--")


def kind(node):
    return node.tag.partition("}")[2]


def plain(node):
    """The text of a block without fonts."""
    if kind(node) in ("softbreak", "linebreak"):
        return " "
    return words(node) + "".join(map(plain, node))


def words(node):
    return (node.text or "") if kind(node) in ("text", "code") else ""


class Writer:
    """Writes the blocks of one docs page to a roff.Page."""

    def __init__(self, page, page_of, blocks):
        self.page = page
        self.page_of = page_of  # the man page of a docs page, as (name, section), or None
        self.referenced = set()
        self._in_synopsis = True  # up to the first heading
        # The headers of tables that are too tall; tables with one header look alike.
        self._tall = {
            tuple(map(plain, table[0])) for table in blocks
            if kind(table) == "table" and roff.lines_a_row(self._rows(table)) > ROW_LIMIT
        }

    def inline(self, node, font=ROMAN):
        return "".join(self._inline(child, font) for child in node)

    def _inline(self, node, font):
        what = kind(node)
        if what == "text":
            return roff.text(words(node))
        if what == "code":
            return roff.set_in(BOLD, roff.code(words(node)), font)
        if what in ("softbreak", "linebreak"):
            return "\n"
        if what == "strong":
            return roff.set_in(BOLD, self.inline(node, BOLD), font)
        if what == "emph":
            return roff.set_in(ITALIC, self.inline(node, ITALIC), font)
        if what == "link":
            return self._link(node, font)
        raise ValueError("no way to write <%s>" % what)

    def _link(self, node, font):
        target = self.page_of(node.get("destination").partition("#")[0])
        if target is None:
            return self.inline(node, font)
        self.referenced.add(target)
        name, section = target
        reference = roff.set_in(BOLD, roff.code(name), font) + "(%s)" % section
        if plain(node) in (name, name.partition("-")[2]):
            return reference
        return "%s (%s)" % (self.inline(node, font), reference)

    def blocks(self, nodes):
        for node in nodes:
            write = getattr(self, kind(node), None)
            if write is None:
                raise ValueError("no way to write <%s>" % kind(node))
            write(node)

    def heading(self, node):
        self._in_synopsis = False
        if node.get("level") == "2":
            self.page.section(roff.text(plain(node).upper()))
        else:
            self.page.subsection(roff.text(plain(node)))

    def paragraph(self, node):
        self.page.paragraph(self.inline(node))

    def code_block(self, node):
        lines = node.text.rstrip("\n").split("\n")
        if self._in_synopsis:
            lines = roff.narrow_code(lines)
        self.page.code_block(lines)

    def list(self, node):
        number = int(node.get("start", 1))
        self.page.begin_list()
        for item in node:
            if node.get("type") == "ordered":
                self.page.begin_item("%d." % number, 4)
                number += 1
            else:
                self.page.begin_item(r"\(bu", 2)
            self.blocks(item)
            self.page.end_item()
        self.page.end_list()

    def block_quote(self, node):
        self.page.indented()
        self.blocks(node)
        self.page.outdented()

    def _rows(self, table):
        return [[self.inline(cell) for cell in row] for row in table]

    def table(self, node):
        header, *rows = self._rows(node)
        names = [roff.set_in(ITALIC, name) if name else "" for name in header]
        if len(header) == 2 and any(roff.width(row[1]) > COLUMN_LIMIT for row in rows):
            self.page.term(*(name for name in names if name))
            for term, description in rows:
                self.page.term(term or r"\&", description)
        elif tuple(map(plain, node[0])) in self._tall:
            for term, *cells in rows:
                named = [(n + ": " if n else "") + c for n, c in zip(names[1:], cells) if c]
                self.page.term(term or r"\&", *named)
        else:
            self.page.table(header, rows)
