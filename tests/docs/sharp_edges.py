#!/usr/bin/env python3
"""Compares docs/sharp-edges.md with the marks "Kept:" of the sources and with the tests.

  sharp_edges.py ROOT

Every mark has an entry, every entry a mark, and every test that an entry names exists. An entry is

  - **What surprises.** What it means for a user.
    - Safe: what to do instead.
    - Test: `suite.Test`, `suite.Test/row`
    - Mark: `FILE`: the first words of the mark

with a line "Mark:" for each of its marks."""

import re
import sys
import textwrap
from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path

from sources import files_of

PAGE = "docs/sharp-edges.md"
MARK = "Kept:"
FOLDERS = ("include", "utils", "java", "examples")
TEST = re.compile(r"^TEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\)", re.MULTILINE)


@dataclass
class Mark:
    file: str
    line: int
    text: str

    @property
    def head(self):
        """Its first sentence, by which an entry names it."""
        return re.split(r"[.;:](?:\s|$)", self.text)[0]


@dataclass
class Entry:
    line: int
    title: str
    safe: str = ""
    tests: list = field(default_factory=list)
    marks: list = field(default_factory=list)  # (line, file, words)


def marks_of(root):
    marks = []
    for path in files_of(root, FOLDERS):
        try:
            lines = path.read_text(encoding="utf-8").split("\n")
        except UnicodeDecodeError:
            continue
        file = str(path.relative_to(root))
        for number, line in enumerate(lines):
            if not re.search(r"(?://|/?\*|#).*" + MARK, line):
                continue
            text = line.split(MARK, 1)[1]
            for following in lines[number + 1 :]:
                comment = re.fullmatch(r"\s*(?://|\*(?!/)|#)(.*)", following)
                if comment is None or MARK in following:
                    break
                text += " " + comment.group(1)
            marks.append(Mark(file, number + 1, " ".join(text.split())))
    return marks


def tests_of(root):
    """Each test with the text of its file, where the names of its rows stand."""
    tests = {}
    for path in files_of(root, ("tests",)):
        if path.suffix == ".cc":
            source = path.read_text(encoding="utf-8", errors="replace")
            for suite, name in TEST.findall(source):
                tests[f"{suite}.{name}"] = source
    return tests


def parse(page):
    entries, problems = [], []
    entry = None
    item = None
    items = []  # (line, text) of the list, its parts without what they begin with
    for number, line in enumerate(page.split("\n"), 1):
        if line.startswith(("- ", "  - ")):
            items.append([number, line])
            item = items[-1]
        elif line.startswith("  ") and item is not None:
            item[1] += " " + line.strip()
        else:
            item = None
    for number, text in items:
        if text.startswith("- "):
            title = re.match(r"- \*\*(.+?)\*\*(.*)", text)
            if title is None:
                entry = None  # of another list
                continue
            entry = Entry(number, title.group(1))
            entries.append(entry)
        elif entry is not None:
            kind, _, rest = text[4:].partition(": ")
            if kind == "Safe":
                entry.safe = rest
            elif kind == "Test":
                entry.tests += re.findall(r"`([^`]+)`", rest)
            elif kind == "Mark" and re.fullmatch(r"`[^`]+`: .+", rest):
                file, _, words = rest.partition("`: ")
                entry.marks.append((number, file.strip("`"), " ".join(words.split())))
            else:
                problems.append(f"{PAGE}:{number}: neither Safe, Test nor Mark: {text.strip()}")
    return entries, problems


def template(mark):
    item = textwrap.wrap(f"Mark: `{mark.file}`: {mark.head}", 120)
    return "\n".join(
        ["  - **What surprises.** What it means for a user.", "    - Safe: what to do instead.",
         "    - Test: `suite.Test`", "    - " + "\n      ".join(item)]
    )  # fmt: skip


def check(page, marks, tests):
    """Returns: what is wrong, as lines."""
    entries, problems = parse(page)
    named = Counter()
    for entry in entries:
        where = f'{PAGE}:{entry.line}: "{entry.title}"'
        for part, given in (("Safe", entry.safe), ("Test", entry.tests), ("Mark", entry.marks)):
            if not given:
                problems.append(f"{where} has no line {part}:")
        for name in entry.tests:
            test, _, row = name.partition("/")
            if test not in tests:
                problems.append(f"{where}: there is no test {test}; name the one that pins it")
            elif row and not re.search(rf"\b{row}\b", tests[test]):
                problems.append(f"{where}: the test {test} has no row {row}")
        for line, file, words in entry.marks:
            found = [
                mark for mark in marks if mark.file == file and is_begun_by(mark.text, words)
            ]
            if len(found) != 1:
                problems.append(
                    f"{PAGE}:{line}: {len(found) or 'no'} marks of {file} begin with these words: "
                    f"{words}"
                )
                of_file = [mark for mark in marks if mark.file == file]
                problems += [f"    {mark.file}:{mark.line}: {mark.head}" for mark in of_file]
            for mark in found:
                named[mark.file, mark.line] += 1
    for mark in marks:
        if named[mark.file, mark.line] == 0:
            problems.append(
                f"{mark.file}:{mark.line}: {PAGE} has no entry for this mark; add one, or name it "
                "in one, in its family's section:"
            )
            problems.append(template(mark))
        elif named[mark.file, mark.line] > 1:
            problems.append(f"{mark.file}:{mark.line}: {PAGE} names this mark more than once")
    for title, count in Counter(entry.title for entry in entries).items():
        if count > 1:
            problems.append(f'{PAGE}: {count} entries are called "{title}"')
    return problems


def is_begun_by(text, words):
    return text == words or re.match(re.escape(words) + r"(?!\w)", text) is not None


def main():
    root = Path(sys.argv[1])
    page = (root / PAGE).read_text(encoding="utf-8")
    problems = check(page, marks_of(root), tests_of(root))
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
