#!/usr/bin/env python3
"""The checks of the pages find what is wrong, and say what to do."""

import unittest
from pathlib import Path

import messages
import sharp_edges
import sources

ROOT = Path(__file__).resolve().parents[2]


class SourcesTest(unittest.TestCase):
    def patterns(self, source, extract=sources.c_texts):
        texts = extract(source, "x.cc")
        return [(text.tidied, text.printed) for text in texts if text.is_for_people]

    def test_formats_are_texts_with_holes(self):
        self.assertEqual(
            self.patterns('AD_ERRO("open %s: %s after %.*s (%5d%%)\\n", path, why, n, what, m);'),
            [("open <>: <> after <> (<>%)", True)],
        )

    def test_formats_of_numbers_are_holes(self):
        self.assertEqual(
            self.patterns('say("%" PRIu64 " received, %" PRIx32 " lost", a, b);'),
            [("received, <> lost", True)],
        )

    def test_texts_that_a_format_is_filled_with_stand_in_it(self):
        self.assertEqual(
            self.patterns('AD_ERRO("%s: %s in %d at %s\\n", "Warning", why(1, "x"), 2, "there");'),
            [("Warning: <> in <> at there", True)],
        )

    def test_sums_are_one_text(self):
        self.assertEqual(
            self.patterns("throw Exception(kId, \"Could not `\" + name + \"' go: \" + Error());"),
            [("Could not `<>' go:", True)],
        )
        self.assertEqual(
            self.patterns('*why = std::string("is no file ") + n + " of " + std::to_string(m);'),
            [("is no file <> of", False)],
        )

    def test_functions_of_the_same_name_are_told_apart(self):
        self.assertEqual(
            self.patterns('Logger::warn("odd"); warn("topic", "is no fine " + name);'),
            [("odd", True), ("is no fine", False)],
        )

    def test_adjacent_literals_are_one_text(self):
        self.assertEqual(
            self.patterns('print_syslog(\n    "one text "\n    // remark\n    "of two");'),
            [("one text of two", True)],
        )

    def test_choices_are_texts_of_their_own(self):
        self.assertEqual(
            self.patterns('refuse("it takes " + (n == 2 ? "one word" : "no word"));'),
            [("one word", False), ("no word", False), ("it takes", True)],
        )

    def test_comments_includes_and_characters_are_none(self):
        self.assertEqual(
            self.patterns(
                "// AD_ERRO(\"not a text\")\n/* \"nor this one\" */\n#include \"a file.h\"\n"
                "char c = '\"'; int n = 1'000'000; AD_ERRO(\"a text\");"
            ),
            [("a text", True)],
        )

    def test_raw_literals_stand_for_their_first_line(self):
        self.assertEqual(
            self.patterns('constexpr char kHelp[] =\n    R"(Usage: x "y"\nMore words.\n)";'),
            [('Usage: x "y"', False)],
        )

    def test_errors_of_the_system_and_assertions_are_shown_as_people_see_them(self):
        self.assertEqual(self.patterns('perror("shmget");'), [("shmget:", True)])
        self.assertEqual(
            self.patterns("assert(argc < (maxarg));"),
            [("Assertion `argc < (maxarg)' failed.", True)],
        )

    def test_python(self):
        source = (
            '"""Not shown."""\n'
            'class Pools(VelorinCommand):\n    """Help of it.\n\nMore."""\n'
            "def f(x):\n"
            '    """Not shown either."""\n'
            '    gdb.write("level %d: %s; " % (1, x) + "end")\n'
            '    raise Unavailable(f"no {x} here")\n'
            '    y = "two words"\n'
        )
        self.assertCountEqual(
            self.patterns(source, sources.python_texts),
            [
                ("Help of it.", True),
                ("level <>: <>; end", True),
                ("no <> here", True),
                ("two words", False),
            ],
        )

    def test_shell(self):
        self.assertEqual(
            self.patterns('# "no text"\necho "cannot open $file: ${why}"\n', sources.shell_texts),
            [("cannot open <>:", False)],
        )


class MessagesTest(unittest.TestCase):
    PAGE = (
        "# Messages\n\n## Doors\n\nIn: `utils/door`,\n`utils/gate.cc`\n\n"
        "| text | channel | meaning | what to do |\n|---|---|---|---|\n"
        "| `cannot open <door>: <reason>` | ERRO | m | d |\n"
        "| `it is <open wide\\|shut\\|…>` | stdout | m | d |\n"
    )
    SOURCE = (
        'AD_ERRO("cannot open %s: %s\\n", door, why);\n'
        'printf("it is %s\\n", x ? "open wide" : "shut");\n'
    )

    def check(self, page=PAGE, source=SOURCE, not_shown="", file="utils/door/door.cc"):
        return messages.check(page, not_shown, sources.c_texts(source, file))

    def test_accepts_what_is_listed(self):
        self.assertEqual(self.check(), [])
        self.assertEqual(self.check(file="utils/gate.cc"), [])

    def test_text_that_is_not_listed_is_shown_as_the_row_to_add(self):
        problems = self.check(source=self.SOURCE + 'AD_CRTC("lost the key of %s", door);\n')
        self.assertIn('docs/messages.md: not listed; add to the section "Doors":', problems)
        self.assertIn("  | `lost the key of <...>` | CRTC | ... | ... |", problems)
        self.assertIn("      utils/door/door.cc:3", problems)

    def test_one_letter_more_is_another_text(self):
        self.assertTrue(self.check(source=self.SOURCE.replace("cannot open", "cannot opens")))

    def test_part_of_a_listed_text_is_not_listed(self):
        self.assertTrue(self.check(source=self.SOURCE + 'say("open");'))

    def test_text_in_the_section_of_other_sources_does_not_count(self):
        problems = self.check(file="utils/window.cc")
        self.assertIn("no section is for utils, or these files in it", problems[0])
        self.assertIn("      utils/window.cc:1", problems)

    def test_listed_text_that_no_source_holds_is_named(self):
        problems = self.check(page=self.PAGE + "| `gone since long` | stderr | m | d |\n")
        self.assertEqual(len(problems), 1)
        self.assertIn("docs/messages.md:12", problems[0])
        self.assertIn("gone since long", problems[0])

    def test_choice_that_no_source_holds_is_named(self):
        problems = self.check(page=self.PAGE.replace("shut", "ajar"))
        self.assertEqual(len(problems), 1)
        self.assertIn('"ajar"', problems[0])

    def test_fix_is_listed_behind_what_it_heals_and_must_be_there(self):
        source = self.SOURCE + 'f("it sticks at " + frame, "oil " + hinge + ", and push it");\n'
        row = "| `it sticks at <frame>` | stdout | m | `fix: oil <hinge>, and push it` |\n"
        self.assertEqual(self.check(page=self.PAGE + row, source=source), [])
        unmarked = self.check(page=self.PAGE + row.replace("fix: ", ""), source=source)
        self.assertIn("  | `oil <...>, and push it` | ? | ... | ... |", unmarked)
        problems = self.check(page=self.PAGE + row, source=source.replace("oil ", "grease "))
        self.assertTrue(any("holds this fix any more" in problem for problem in problems))

    def test_tag_must_be_in_the_channel(self):
        problems = self.check(page=self.PAGE.replace("ERRO", "stderr"))
        self.assertEqual(len(problems), 1)
        self.assertIn("written as ERRO", problems[0])

    def test_row_needs_all_cells(self):
        problems = self.check(page=self.PAGE.replace("| stdout | m | d |", "| stdout | m |  |"))
        self.assertIn("a row has four cells", problems[0])

    def test_what_is_not_shown_is_excused_and_must_be_there(self):
        page = self.PAGE.replace("| `cannot open <door>: <reason>` | ERRO | m | d |\n", "")
        entry = "# remark\nutils/door/door.cc: cannot open <>:\n"
        self.assertEqual(self.check(page=page, not_shown=entry), [])
        problems = self.check(not_shown="utils/door/door.cc: no such text\n")
        self.assertIn("tests/docs/not_shown.txt:1", problems[0])


class SharpEdgesTest(unittest.TestCase):
    PAGE = (
        "# Sharp edges\n\n## Doors\n\n"
        "- **Doors open inwards.** Push and\n  wait.\n  - Safe: pull.\n"
        "  - Test: `doorTest.OpensInwards`,\n    `doorTest.Rows/Heavy`\n"
        "  - Mark: `utils/door.cc`: inwards, as\n    walls\n"
    )
    MARKS = [sharp_edges.Mark("utils/door.cc", 7, "inwards, as walls stand. More.")]
    TESTS = {"doorTest.OpensInwards": "", "doorTest.Rows": 'rows = {"Heavy"}'}

    def check(self, page=PAGE, marks=None, tests=None):
        return sharp_edges.check(page, marks or self.MARKS, tests or self.TESTS)

    def test_accepts_what_fits(self):
        self.assertEqual(self.check(), [])

    def test_mark_without_an_entry_is_shown_as_the_entry_to_add(self):
        mark = sharp_edges.Mark("utils/door.cc", 9, "no handle; ever")
        problems = self.check(marks=self.MARKS + [mark])
        self.assertIn("utils/door.cc:9: docs/sharp-edges.md has no entry", problems[0])
        self.assertIn("    - Mark: `utils/door.cc`: no handle", problems[1])

    def test_entry_without_a_mark_is_named_with_the_marks_of_its_file(self):
        marks = [sharp_edges.Mark("utils/door.cc", 7, "outwards")]
        problems = self.check(marks=marks)
        self.assertIn("docs/sharp-edges.md:10: no marks", problems[0])
        self.assertIn("utils/door.cc:7: outwards", problems[1])

    def test_half_a_word_names_no_mark(self):
        self.assertTrue(self.check(page=self.PAGE.replace("walls\n", "wall\n")))

    def test_words_that_two_marks_begin_with_name_none(self):
        twice = sharp_edges.Mark("utils/door.cc", 8, "inwards, as walls do")
        self.assertIn("2 marks", self.check(marks=self.MARKS + [twice])[0])

    def test_missing_parts_are_named(self):
        for part in ("Safe", "Test", "Mark"):
            lines = [line for line in self.PAGE.split("\n") if f"- {part}:" not in line]
            problems = self.check(page="\n".join(lines))
            self.assertTrue(any(f"has no line {part}:" in p for p in problems), part)

    def test_tests_and_rows_must_exist(self):
        problems = self.check(tests={"doorTest.Rows": ""})
        self.assertEqual(len(problems), 2)
        self.assertIn("there is no test doorTest.OpensInwards", problems[0])
        self.assertIn("has no row Heavy", problems[1])


class PagesTest(unittest.TestCase):
    """The pages themselves: what is taken out of them is missed, and so is what a source gets."""

    @classmethod
    def setUpClass(cls):
        cls.texts = sources.all_texts(ROOT)
        cls.marks = sharp_edges.marks_of(ROOT)
        cls.tests = sharp_edges.tests_of(ROOT)
        cls.messages = (ROOT / messages.PAGE).read_text(encoding="utf-8")
        cls.edges = (ROOT / sharp_edges.PAGE).read_text(encoding="utf-8")
        cls.not_shown = (ROOT / messages.NOT_SHOWN).read_text(encoding="utf-8")

    def test_tools_of_the_build_are_left_out(self):
        for folder in sources.BUILD_TOOLS:
            self.assertTrue((ROOT / folder).is_dir(), folder)
            self.assertFalse([text for text in self.texts if text.file.startswith(folder + "/")])

    def test_each_row_of_a_whole_text_is_missed(self):
        # Parts of texts may stand in another row, too.
        printed = {text.tidied for text in self.texts if text.printed and text.is_for_people}
        whole = messages.check(self.messages, self.not_shown, self.texts)
        lines = self.messages.split("\n")
        sections, _ = messages.parse(self.messages)
        rows = [
            row.line - 1 for section in sections for row in section.rows if row.pattern in printed
        ]
        self.assertGreater(len(rows), 150)
        for i in rows[:: len(rows) // 10]:
            without = "\n".join(lines[:i] + lines[i + 1 :])
            problems = messages.check(without, self.not_shown, self.texts)
            self.assertGreater(len(problems), len(whole), lines[i])

    def test_each_mark_is_missed(self):
        whole = sharp_edges.check(self.edges, self.marks, self.tests)
        lines = self.edges.split("\n")
        marks = [i for i, line in enumerate(lines) if line.startswith("  - Mark:")]
        self.assertGreater(len(marks), 60)
        for i in marks[:: len(marks) // 10]:
            without = "\n".join(lines[:i] + lines[i + 1 :])
            problems = sharp_edges.check(without, self.marks, self.tests)
            self.assertGreater(len(problems), len(whole), lines[i])

    def test_statement_in_any_source_is_missed(self):
        files = sorted({text.file for text in self.texts if text.file.endswith(".cc")})
        more = []
        for file in files:
            more += sources.c_texts('void f() {\n  AD_ERRO("new in %s\\n", x);\n}\n', file)
        problems = "\n".join(messages.check(self.messages, self.not_shown, self.texts + more))
        self.assertIn("  | `new in <...>` | ERRO | ... | ... |", problems)
        for file in files:
            self.assertIn(f"{file}:2", problems)


if __name__ == "__main__":
    unittest.main()
