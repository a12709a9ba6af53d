#!/usr/bin/env python3
"""Compares docs/messages.md with the texts in the sources.

  messages.py ROOT

Fails on a text that the page does not list, and on a listed one that no source holds. A section
of the page is for the sources that its line "In: ..." names; its tables have the columns text,
channel, meaning, what to do. In a text, <...> stands for what is filled in; <one|other|…> says
which texts that may be, "…" being any other. What a tool says is to be done about a text stands in
the last column, in backquotes behind "fix: "; that is compared, too."""

import re
import sys
from dataclasses import dataclass, field
from pathlib import Path

from sources import HOLE, all_texts, has_word, one_line, tidy

PAGE = "docs/messages.md"
NOT_SHOWN = "tests/docs/not_shown.txt"
OTHERS = "…"
FIX = "fix: "
CHANNELS = {  # of calls that have no tag
    **dict.fromkeys(("perror", "say", "complain", "fail", "refuse"), "stderr"),
    **dict.fromkeys(("printf", "puts", "print_and_exit"), "stdout"),
    **dict.fromkeys(("print_syslog", "errorlog_and_add_to_trace"), "print"),
}
PLACEHOLDER = re.compile(r"<([^<>]*)>")
CODE = re.compile(r"(?<!`)(`+)(?!`)(.+?)(?<!`)\1(?!`)")


@dataclass
class Row:
    line: int
    text: str  # as the page has it
    pattern: str
    cells: list

    def __post_init__(self):
        choices = [found.group(1).split("|") for found in PLACEHOLDER.finditer(self.text)]
        self.alternatives = [
            tidy(text) for choice in choices if len(choice) > 1 for text in choice if text != OTHERS
        ]
        self.fixes = [
            tidy(PLACEHOLDER.sub(HOLE, span[len(FIX) :]))
            for span in code_spans(self.cells[-1])
            if span.startswith(FIX)
        ]


@dataclass
class Section:
    title: str
    sources: list = field(default_factory=list)
    rows: list = field(default_factory=list)

    def is_for(self, file):
        return any(file == s or file.startswith(s.rstrip("/") + "/") for s in self.sources)


def code_spans(cell):
    spans = []
    for found in CODE.finditer(cell):
        text = found.group(2)
        if text.startswith(" ") and text.endswith(" ") and text.strip():
            text = text[1:-1]
        spans.append(text.replace(r"\|", "|"))
    return spans


def parse(page):
    """The sections and what is wrong with the page itself."""
    sections, problems = [], []
    naming = False  # in a paragraph that names sources
    for number, line in enumerate(page.split("\n"), 1):
        naming = bool(line) and (naming or line.startswith("In: "))
        if line.startswith("#"):
            sections.append(Section(line.lstrip("# ")))
        elif naming and sections:
            sections[-1].sources += code_spans(line)
        elif line.startswith("|") and sections and sections[-1].sources:
            cells = [cell.strip() for cell in re.split(r"(?<!\\)\|", line)[1:-1]]
            if cells and (cells[0] == "text" or not cells[0].strip("-")):
                continue
            texts = code_spans(cells[0]) if cells else []
            if len(cells) != 4 or len(texts) != 1 or not all(cells):
                problems.append(
                    f"{PAGE}:{number}: a row has four cells: one text in backquotes, its channel, "
                    "what it means, what to do"
                )
                continue
            pattern = tidy(PLACEHOLDER.sub(HOLE, texts[0]))
            sections[-1].rows.append(Row(number, texts[0], pattern, cells))
    return sections, problems


def in_code(text):
    """As a code span in a table."""
    text = text.replace("|", r"\|")
    return f"`` {text} ``" if "`" in text else f"`{text}`"


def suggestion(text):
    """The row to add, to be filled in."""
    channel = text.tag or CHANNELS.get(text.call, "?")
    return f"| {in_code(one_line(text.pattern).replace(HOLE, '<...>'))} | {channel} | ... | ... |"


def parts_of(row):
    """What a row lists: the text, the texts that may stand in it, and the fixes."""
    yield row.pattern
    yield from row.alternatives
    yield from row.fixes


def covers(row, text, pattern):
    """Whether the row lists the text: whole texts must be the same, others may be a part."""
    if text.printed:
        return pattern == row.pattern
    return any(pattern in part for part in parts_of(row))


def is_made_of(pattern, texts):
    """Whether the texts make up all words of the pattern."""
    for text in texts:
        pattern = pattern.replace(text, HOLE)
    return not re.search("[A-Za-z]", pattern)


def parse_not_shown(lines):
    entries = {}
    for number, line in enumerate(lines.split("\n"), 1):
        if line and not line.startswith("#"):
            file, _, pattern = line.partition(": ")
            entries[file, pattern] = number
    return entries


def check(page, not_shown, texts):
    """Returns: what is wrong, as lines."""
    sections, problems = parse(page)
    excused = parse_not_shown(not_shown)
    used = set()
    missing = {}  # section or file: rows
    sections_of = {}  # file: sections

    for text in texts:
        pattern = text.tidied
        if not text.is_for_people:
            continue
        if (text.file, pattern) in excused:
            used.add((text.file, pattern))
            continue
        if text.file not in sections_of:
            sections_of[text.file] = [s for s in sections if s.is_for(text.file)]
        candidates = sections_of[text.file]
        rows = [row for s in candidates for row in s.rows if covers(row, text, pattern)]
        if not rows:
            title = candidates[0].title if candidates else None
            folder = "" if candidates else text.file.rpartition("/")[0]
            rows = missing.setdefault((title, folder), {})
            rows.setdefault(suggestion(text), []).append(text)
        elif text.tag and not any(text.tag in row.cells[1] for row in rows):
            problems.append(
                f"{PAGE}:{rows[0].line}: the text is written as {text.tag} at {text.place}: say so "
                "in its channel"
            )

    perhaps_not_shown = []
    for (title, folder), rows in missing.items():
        if title is None:
            problems.append(
                f"{PAGE}: no section is for {folder}, or these files in it: add it to the line "
                '"In:" of one, and to the table there:'
            )
        else:
            problems.append(f'{PAGE}: not listed; add to the section "{title}":')
        for row, found in rows.items():
            problems.append(f"  {row}")
            problems.append("      " + ", ".join(text.place for text in found))
            perhaps_not_shown += [f"{t.file}: {t.tidied}" for t in found if not t.printed]
    if perhaps_not_shown:
        problems.append(f"{NOT_SHOWN}: has those that nobody gets to see; of the above perhaps")
        problems += dict.fromkeys(perhaps_not_shown)

    for section in sections:
        own = [text for text in texts if section.is_for(text.file)]
        held = {text.tidied for text in own}
        for_people = {text.tidied for text in own if text.is_for_people}
        longest_first = sorted(for_people, key=len, reverse=True)
        commands = sorted(filter(has_word, held), key=len, reverse=True)
        for row in section.rows:
            if row.pattern not in held and not is_made_of(row.pattern, longest_first):
                problems.append(
                    f'{PAGE}:{row.line}: no source of "{section.title}" holds this text any more; '
                    f"remove or correct it: {row.text}"
                )
            for alternative in row.alternatives:
                if not any(alternative in pattern for pattern in held):
                    problems.append(
                        f'{PAGE}:{row.line}: no source of "{section.title}" holds "{alternative}" '
                        "any more; remove or correct it"
                    )
            for fix in row.fixes:
                if not is_made_of(fix, commands):
                    problems.append(
                        f'{PAGE}:{row.line}: no source of "{section.title}" holds this fix any '
                        f"more; remove or correct it: {fix}"
                    )
    for entry, number in excused.items():
        if entry not in used:
            problems.append(f"{NOT_SHOWN}:{number}: no source holds this text; remove it")
    return problems


def main():
    root = Path(sys.argv[1])
    problems = check((root / PAGE).read_text(), (root / NOT_SHOWN).read_text(), all_texts(root))
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
