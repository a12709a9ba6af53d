"""Follows the links of the Markdown pages: those within the project lead to a file and, behind a #,
to a heading.

Usage: check_links.py SOURCE
"""

import glob
import os
import re
import sys


def without_code(text):
    """The text without code blocks and code spans."""
    text = re.sub(r"^( *)```.*?^\1```$", "", text, flags=re.M | re.S)
    return re.sub(r"(`+).*?\1", "", text, flags=re.S)


def anchors(path):
    """What the headings of a page are called behind a #."""
    with open(path, encoding="utf-8") as file:
        text = re.sub(r"^```.*?^```$", "", file.read(), flags=re.M | re.S)
    headings = re.findall(r"^#+ (.*)$", text, re.M)
    return {re.sub(r"[^\w\- ]", "", h.lower()).replace(" ", "-") for h in headings}


def dead_links(root, page):
    with open(page, encoding="utf-8") as file:
        targets = re.findall(r"\]\(([^)\s]+)\)", without_code(file.read()))
    for target in targets:
        if re.match(r"\w+:", target):
            continue
        name, _, anchor = target.partition("#")
        path = os.path.normpath(os.path.join(os.path.dirname(page), name)) if name else page
        inside = os.path.commonpath([root, path]) == root
        if not inside or not os.path.exists(path):
            yield target
        elif anchor and anchor not in anchors(path):
            yield target
    if not targets and os.path.basename(page) == "README.md":
        yield "(no link was found at all)"


def main():
    root = os.path.realpath(sys.argv[1])
    pages = glob.glob(os.path.join(root, "*.md")) + glob.glob(os.path.join(root, "docs", "*.md"))
    dead = [(page, target) for page in sorted(pages) for target in dead_links(root, page)]
    for page, target in dead:
        print("%s: nothing at %s" % (os.path.relpath(page, root), target))
    sys.exit(1 if dead else 0)


if __name__ == "__main__":
    main()
