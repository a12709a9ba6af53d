#!/usr/bin/env python3
# Makes the man pages of the docs pages and the public headers.
#
#   make_man_pages.py --source ROOT --output FOLDER --version VERSION --date YYYY-MM-DD
#                     [--cmark PROGRAM]
#
# Each page of docs/ becomes one: its first sentence, or without one its title, is the line NAME;
# what stands before its first heading is the SYNOPSIS or the DESCRIPTION. To the page of a function
# family the declarations of the headers that it includes are added, with their comments, and a
# symbolic link for each name. Nothing else is an input, so the same sources give the same bytes.

import argparse
import os
import re
import shutil
import sys

import headers
import markdown
import roff
from reference import Reference

# An extension of its own: other libraries have pages of MD5Init and others in section 3.
FUNCTIONS = "3velorin"
DAEMONS = ("ad_logd",)
OVERVIEW = ("velorin-util", "7")

JAVA_FOLDER = "java/velorin"
JAVA_PAGE = "velorin-diagnostics"
# Headers that are not in include/.
ELSEWHERE = {"ku_syslog.h": "utils/libsyslog"}


class Source:
    """A docs page and what it is made into."""

    def __init__(self, root, file_name, cmark):
        self.blocks = markdown.parsed(cmark, os.path.join(root, "docs", file_name))
        stem = file_name[: -len(".md")]
        includes = []
        if len(self.blocks) > 2 and markdown.kind(self.blocks[2]) == "code_block":
            includes = re.findall(r'^#include [<"](\S+)[>"]', self.blocks[2].text, re.M)
        self.headers = [
            headers.read_header(os.path.join(root, ELSEWHERE.get(name, "include")), name)
            for name in includes
        ]
        if stem.startswith("ad_"):
            self.name, self.section = stem, "8" if stem in DAEMONS else "1"
        elif stem.startswith("formats-"):
            self.name, self.section = "velorin-" + stem[len("formats-") :], "5"
        else:
            self.name = stem if stem.startswith("velorin-") else "velorin-" + stem
            self.section = FUNCTIONS if self.headers else "7"
        if self.name == JAVA_PAGE:
            folder = os.path.join(root, JAVA_FOLDER)
            for java_file in sorted(os.listdir(folder)):
                java_class = headers.read_java(os.path.join(folder, java_file))
                self.headers += [java_class] if java_class else []

    def file(self):
        return "man%s/%s.%s" % (self.section[0], self.name, self.section)

    def aliases(self):
        names = {name for header in self.headers for name in header.names()}
        names |= {header.name.replace("/", "-") for header in self.headers if "/" in header.name}
        return sorted(name for name in names if "operator" not in name and name != self.name)


class Maker:
    def __init__(self, root, version, date, cmark):
        docs = sorted(f for f in os.listdir(os.path.join(root, "docs")) if f.endswith(".md"))
        self.sources = {f: Source(root, f, cmark) for f in docs}
        self.version = version
        self.date = date

    def page_of(self, destination):
        source = self.sources.get(destination)
        return source and (source.name, source.section)

    def page(self, source):
        page = roff.Page()
        title, *blocks = source.blocks
        purpose = markdown.plain(title)
        if markdown.kind(blocks[0]) == "paragraph":
            purpose, _, more = markdown.plain(blocks[0]).partition(". ")
            if not more:
                blocks.pop(0)
        page.section("NAME")
        page.lines += roff.filled(roff.text("%s - %s" % (source.name, name_line(purpose))))
        writer = markdown.Writer(page, self.page_of, blocks)
        self._before_headings(page, writer, blocks)
        writer.blocks(blocks)
        reference = Reference(page, self.page_of)
        for header in source.headers:
            reference.write(header)
        self._see_also(page, source, writer.referenced)
        head = '.TH %s %s %s "velorin-util %s" "velorin-util manual"' % (
            roff.text(source.name).upper(), source.section, self.date, self.version)
        # The first line makes man call tbl. On terminals there are no page breaks for a table to
        # avoid. Names are not hyphenated, and text is not spread to the right margin.
        preamble = ["'\\\" t", ".if n .pl 9999v", head, ".nr HY 0", ".nh", ".ad l"]
        return "\n".join(preamble + page.lines) + "\n"

    @staticmethod
    def _before_headings(page, writer, blocks):
        """Writes what stands before the first heading, and takes it out of `blocks`."""
        lead = []
        while blocks and markdown.kind(blocks[0]) != "heading":
            lead.append(blocks.pop(0))
        if blocks and markdown.plain(blocks[0]) == "Synopsis":
            blocks.pop(0)
            page.section("SYNOPSIS")
        elif lead and markdown.kind(lead[0]) == "code_block":
            page.section("SYNOPSIS")
            writer.code_block(lead.pop(0))
            if lead:
                page.section("DESCRIPTION")
        elif lead:
            page.section("DESCRIPTION")
        writer.blocks(lead)

    def _see_also(self, page, source, referenced):
        own = (source.name, source.section)
        others = sorted((referenced | {OVERVIEW}) - {own}, key=lambda p: (p[1], p[0]))
        if own == OVERVIEW:
            others = sorted(
                ((s.name, s.section) for s in self.sources.values() if s is not source),
                key=lambda p: (p[1], p[0]))
        page.section("SEE ALSO")
        page.paragraph(", ".join(
            "%s(%s)" % (roff.set_in(roff.BOLD, roff.code(name)), section)
            for name, section in others))


def name_line(sentence):
    """A sentence as man pages put it behind a name: in small letters, without a full stop."""
    sentence = sentence.rstrip(".")
    is_word = sentence[1:2].islower() or sentence[1:2] == " "
    return sentence[0].lower() + sentence[1:] if is_word else sentence


def write(folder, name, text):
    path = os.path.join(folder, name)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="ascii") as file:
        file.write(text)


def main():
    parser = argparse.ArgumentParser(description="Makes the man pages.")
    for option in ("--source", "--output", "--version", "--date"):
        parser.add_argument(option, required=True)
    parser.add_argument("--cmark", default="cmark-gfm")
    options = parser.parse_args()

    maker = Maker(options.source, options.version, options.date, options.cmark)
    shutil.rmtree(options.output, ignore_errors=True)
    owners = {}
    for source in maker.sources.values():
        write(options.output, source.file(), maker.page(source))
        for alias in source.aliases():
            if alias in owners:
                sys.exit("%s is declared for %s and %s" % (alias, owners[alias], source.name))
            owners[alias] = source.name
            name = "man%s/%s.%s" % (source.section[0], alias, source.section)
            os.symlink(os.path.basename(source.file()), os.path.join(options.output, name))


if __name__ == "__main__":
    main()
