# The declarations of a header and their comments, as the last part of a man page.

import re
import textwrap

import headers
import roff
from roff import BOLD, ITALIC


class Reference:
    def __init__(self, page, page_of):
        self.page = page
        self.page_of = page_of  # the man page of a docs page, as (name, section), or None

    def write(self, header):
        self.page.section("REFERENCE: " + roff.text(header.name))
        for entry in header.entries:
            if entry.title:
                self.page.subsection(roff.text(entry.title))
            lines = narrow([line for t in entry.types for line in t] + entry.prototypes)
            if lines:
                self.page.declarations(lines)
            if lines and entry.comment:
                self.page.indented()
                self._comment(entry.comment)
                self.page.outdented()
            else:
                self._comment(entry.comment)

    def _comment(self, lines):
        for block in blocks_of(lines):
            if block[0].startswith("  "):
                self.page.code_block(textwrap.dedent("\n".join(block)).split("\n"))
            elif block[0].startswith("- "):
                self.page.begin_item(r"\(bu", 2)
                self.page.paragraph(self._text(" ".join(block)[2:]))
                self.page.end_item()
            else:
                self.page.paragraph(self._text(" ".join(block)))

    def _text(self, words):
        """A comment's text with its `code` in bold and its keyword in italics."""
        words = re.sub(r"docs/(\w+\.md)", self._page_name, words)
        parts = words.split("`")
        result = "".join(
            roff.set_in(BOLD, roff.code(part)) if i % 2 else roff.text(part)
            for i, part in enumerate(parts)
        )
        keyword = headers.KEYWORDS.match(words)
        if keyword:
            result = roff.set_in(ITALIC, keyword[0]) + result[len(keyword[0]) :]
        return result

    def _page_name(self, match):
        page = self.page_of(match[1])
        return "`%s`(%s)" % page if page else match[0]


def blocks_of(lines):
    """The lines of a comment, apart: paragraphs, of which one with a keyword is its own, the items
    of lists, and examples, which are indented."""
    blocks = [[]]
    for line in lines:
        in_item = bool(blocks[-1]) and blocks[-1][0].startswith("- ")
        in_example = bool(blocks[-1]) and blocks[-1][0].startswith("  ")
        example = line.startswith("  ") and not in_item
        begins = line.startswith("- ") or headers.KEYWORDS.match(line)
        if not line or begins or example != in_example:
            blocks.append([])
        if line:
            blocks[-1].append(line.strip() if in_item else line)
    return [block for block in blocks if block]


def narrow(lines):
    return roff.narrow_comments(roff.narrow_code(lines, roff.WIDTH))
