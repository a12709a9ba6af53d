"""Compares the man pages with the docs pages that they are made of: every paragraph and every line
of code stands on the man page as in the docs page, and every word of a table.

Usage: check_text.py SOURCE FOLDER CMARK
"""

import glob
import os
import re
import subprocess
import sys
import xml.etree.ElementTree as ElementTree


def kind(node):
    return node.tag.partition("}")[2]


def pieces(node):
    """The text of a block, apart where links are: those are shown otherwise."""
    found = [""]
    for child in node:
        if kind(child) == "link":
            found.append("")
        elif kind(child) in ("text", "code"):
            found[-1] += child.text or ""
        elif kind(child) == "softbreak":
            found[-1] += " "
        else:
            first, *rest = pieces(child)
            found[-1] += first
            found += rest
    return found


def packed(text):
    """Text without what the width of the page decides."""
    return re.sub(r"\s", "", text)


def rendered(path):
    text = subprocess.run(
        ["mandoc", "-T", "utf8", "-O", "width=78", path],
        check=True, capture_output=True, text=True, encoding="utf-8",
    ).stdout
    return re.sub(".\b", "", text).replace("\u2019", "'").replace("\u2010", "-")


def missing(blocks, page):
    """What of the blocks does not stand on the page."""
    text = packed(page)
    for block in blocks:
        if kind(block) in ("list", "item"):
            yield from missing(block, page)
        elif kind(block) == "code_block":
            yield from (line for line in block.text.split("\n") if packed(line) not in text)
        elif kind(block) == "table":
            cells = [piece for row in block[1:] for cell in row for piece in pieces(cell)]
            words = [word for cell in cells for word in re.split(r"[\s_/=,.]|::", cell)]
            yield from (word for word in words if word not in text)
        elif kind(block) == "heading":
            title = packed("".join(pieces(block)))
            yield from () if title in text or title.upper() in text else (title,)
        else:
            yield from (piece for piece in pieces(block) if packed(piece) not in text)


def page_of(folder, stem):
    for name in (stem, "velorin-" + stem, "velorin-" + stem.removeprefix("formats-")):
        for path in glob.glob(os.path.join(folder, "man*", name + ".*")):
            if not os.path.islink(path):
                return path
    return None


def main():
    root, folder, cmark = sys.argv[1:]
    faults = 0
    compared = 0
    for source in sorted(glob.glob(os.path.join(root, "docs", "*.md"))):
        stem = os.path.basename(source)[: -len(".md")]
        path = page_of(folder, stem)
        if path is None:
            print("docs/%s.md has no man page" % stem)
            faults += 1
            continue
        xml = subprocess.run([cmark, "-e", "table", "-t", "xml", source], check=True,
                             capture_output=True).stdout
        # The title and the first sentence stand there otherwise, as the line NAME.
        blocks = [b for b in ElementTree.fromstring(xml)][2:]
        blocks = [b for b in blocks if pieces(b) != ["Synopsis"]]
        compared += len(blocks)
        for text in missing(blocks, rendered(path)):
            print("docs/%s.md: not on the man page: %s" % (stem, text))
            faults += 1
    if compared < 100:
        print("only %d blocks were compared" % compared)
        faults += 1
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
