#!/usr/bin/env python3
"""One table of what benchmarks of both targets printed.

    bench/table.py X86-FOLDER X86-64-FOLDER FAMILY...

Each folder holds FAMILY.txt, the output of FAMILY_bench. Prints Markdown: a row a contest, with what
ours takes as a ratio of the peer's time, the limit where there is one, the spread of the ratio and
both times on each target.
"""
import re
import sys
from pathlib import Path

LINE = re.compile(
    r"(?P<name>\S.*?)\s+(?P<ratio>[\d.]+) of (?P<peer>\S.*?)\s+"
    r"(?:\(limit (?P<limit>[\d.]+)\)\s+(?P<verdict>ok|OVER)\s+)?"
    r"(?P<runs>\d+) runs, spread (?P<spread>\d+) %\s+(?P<ours>\S+) / (?P<theirs>\S+) ns$")
TARGETS = ("x86", "x86-64")


def contests(path):
    """Returns: what each line of the file tells, by contest and peer, in order."""
    found = {}
    for line in path.read_text().splitlines():
        match = LINE.match(line)
        if match:
            found[match["name"], match["peer"]] = match
    if not found:
        sys.exit(f"{path}: no contests")
    return found


def time(ns):
    ns = float(ns)
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if ns >= size:
            return f"{ns / size:.3g} {unit}"
    return f"{ns:.3g} ns"


def cells(contest):
    if contest is None:
        return ["", "", "", ""]
    limit = contest["limit"] or ""
    if contest["verdict"] == "OVER":
        limit += " OVER"
    return [contest["ratio"], limit, f"{contest['spread']} %",
            f"{time(contest['ours'])} / {time(contest['theirs'])}"]


def row(texts):
    return "| " + " | ".join(texts) + " |"


def main():
    folders = [Path(folder) for folder in sys.argv[1:3]]
    print(row(["contest", "peer"] + [f"{target} {what}" for target in TARGETS
                                     for what in ("ratio", "limit", "spread", "ours / peer")]))
    print(row(["---", "---"] + ["--:"] * 8))
    kept = {target: [0, 0] for target in TARGETS}
    for family in sys.argv[3:]:
        narrow, wide = (contests(folder / f"{family}.txt") for folder in folders)
        for key in list(narrow) + [key for key in wide if key not in narrow]:
            sides = (narrow.get(key), wide.get(key))
            print(row([f"{family}: {key[0]}", key[1]] + cells(sides[0]) + cells(sides[1])))
            for target, side in zip(TARGETS, sides):
                if side is not None and side["limit"]:
                    kept[target][side["verdict"] == "OVER"] += 1
    print()
    print("; ".join(f"{target}: {ok} limits kept, {over} exceeded"
                    for target, (ok, over) in kept.items()))


if __name__ == "__main__":
    if len(sys.argv) < 4:
        sys.exit(__doc__)
    main()
