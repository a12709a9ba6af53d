"""Compares the man pages with what there is: every exported name, header, program and docs page has
one, and no page is of something else.

Usage: check_names.py SOURCE FOLDER
"""

import os
import re
import subprocess
import sys

EXTENSION = ".3velorin"
LISTS = ("symbols.x86.txt", "symbols.x86-64.txt", "symbols.libsyslog.txt")


class Faults:
    def __init__(self):
        self.found = 0

    def say(self, text):
        print(text)
        self.found += 1


def exported(root):
    """The names in the reviewed lists of exported symbols, without parameters."""
    names = set()
    for file_name in LISTS:
        with open(os.path.join(root, "tests", "abi", file_name), encoding="utf-8") as file:
            for line in file:
                if line.startswith("#"):
                    continue
                symbol = line.split(" ", 3)[3].strip().replace("[abi:cxx11]", "")
                if re.match(r"(typeinfo|vtable)( name)? for ", symbol):
                    names.add(symbol.partition(" for ")[2])
                    continue
                found = re.match(r"(?:\w+::)*(?:operator[^\w(]+|~?\w+)", symbol)
                names.add(found[0])
    return names


def code_of(path):
    """A source without its comments."""
    with open(path, encoding="utf-8") as file:
        return re.sub(r"//[^\n]*|/\*.*?\*/", "", file.read(), flags=re.S)


def declared(name, sources):
    """Whether the last part of a name stands in the code of a source that opens its scopes."""
    *scopes, last = re.split(r"::|\.", name)
    if last[:1] == "~":
        last = last[1:]
    return any(
        re.search(r"\b%s\b" % re.escape(last), code)
        and all(re.search(r"\b(class|namespace|package) %s\b" % s, code) for s in scopes)
        for code in sources
    )


def rendered(path):
    text = subprocess.run(
        ["mandoc", "-T", "utf8", "-O", "width=78", path],
        check=True, capture_output=True, text=True, encoding="utf-8",
    ).stdout
    return re.sub(".\b", "", text)


def stands_in(name, text):
    return re.search(r"(?<![\w:~.])%s(?![\w:])" % re.escape(name), text) is not None


def check_exported(root, folder, faults):
    pages = {}
    names = exported(root)
    if len(names) < 100:
        faults.say("only %d exported names were found" % len(names))
    for name in sorted(names):
        page_name = name.rpartition("::")[0] if "operator" in name else name
        path = os.path.join(folder, "man3", page_name + EXTENSION)
        if not os.path.exists(path):
            faults.say("%s is exported and has no man page" % name)
            continue
        path = os.path.realpath(path)
        if path not in pages:
            pages[path] = rendered(path)
        text, _, reference = pages[path].partition("\nREFERENCE: ")
        if not stands_in(name, reference):
            faults.say("%s is not described on %s" % (name, os.path.basename(path)))


def check_aliases(root, folder, faults):
    include = os.path.join(root, "include")
    headers = [os.path.join(d, f) for d in ("velorin", "zam") for f in
               os.listdir(os.path.join(include, d))]
    paths = [os.path.join(include, header) for header in headers]
    paths.append(os.path.join(root, "utils/libsyslog/ku_syslog.h"))
    java = os.path.join(root, "java", "velorin")
    paths += [os.path.join(java, f) for f in os.listdir(java) if f.endswith(".java")]
    sources = [code_of(path) for path in paths]

    names = exported(root)
    of_headers = {header.replace("/", "-") for header in headers}
    for section in os.listdir(folder):
        for file_name in os.listdir(os.path.join(folder, section)):
            path = os.path.join(folder, section, file_name)
            if not os.path.islink(path):
                continue
            name = file_name[: -len(EXTENSION)]
            if not os.path.isfile(path) or os.path.islink(os.path.join(folder, section,
                                                                       os.readlink(path))):
                faults.say("%s leads to no page" % file_name)
            if name not in of_headers and name not in names and not declared(name, sources):
                faults.say("%s is the name of nothing" % file_name)
    for name in sorted(of_headers):
        if not os.path.exists(os.path.join(folder, "man3", name + EXTENSION)):
            faults.say("the header %s has no man page" % name)


def check_pages(root, folder, faults):
    docs = {f[: -len(".md")] for f in os.listdir(os.path.join(root, "docs")) if f.endswith(".md")}
    described = set()
    for section in sorted(os.listdir(folder)):
        for file_name in sorted(os.listdir(os.path.join(folder, section))):
            path = os.path.join(folder, section, file_name)
            if os.path.islink(path):
                continue
            name, _, extension = file_name.rpartition(".")
            text = rendered(path)
            short = name.removeprefix("velorin-")
            source = {name, short, "formats-" + short} & docs
            described |= source
            if not source:
                faults.say("%s has no docs page" % file_name)
            if extension[0] != section[-1]:
                faults.say("%s is in %s" % (file_name, section))
            if not text.startswith("%s(%s)" % (name.upper(), extension)):
                faults.say("%s has another title" % file_name)
            if not re.search(r"\nNAME\n +%s - \S" % re.escape(name), text):
                faults.say("%s has no line that whatis could show" % file_name)
    for source in sorted(docs - described):
        faults.say("docs/%s.md has no man page" % source)
    for tool in sorted(os.listdir(os.path.join(root, "utils"))):
        if tool.startswith("ad_") and not any(
            os.path.exists(os.path.join(folder, "man" + s, "%s.%s" % (tool, s))) for s in "18"
        ):
            faults.say("the program %s has no man page" % tool)


def main():
    root, folder = sys.argv[1:]
    faults = Faults()
    check_exported(root, folder, faults)
    check_aliases(root, folder, faults)
    check_pages(root, folder, faults)
    sys.exit(1 if faults.found else 0)


if __name__ == "__main__":
    main()
