"""Every command line of the documents is in a table of the tests, and the tables have no other."""
import importlib
import re
import unittest
from pathlib import Path

from documents import SESSION, lines_of, of_markdown, pages
from installed import SOURCES, main
from server import shown_lines

HERE = Path(__file__).parent
MODULES = [importlib.import_module(each.stem) for each in sorted(HERE.glob("*_test.py"))
           if each.name != Path(__file__).name]
ROWS = [row for module in MODULES for row in getattr(module, "ROWS", [])]


class command_lines(unittest.TestCase):
    def test_each_line_of_a_page_is_run(self):
        run = {(row.page, row.line) for row in ROWS}
        shown = shown_lines()
        self.assertGreater(len(shown), 150)
        forgotten = [f"{page}:{number}: {line}" for page, number, line in shown
                     if ("", line) not in run and (page, line) not in run]
        self.assertEqual(forgotten, [], "no row of tests/docs runs these")

    def test_each_row_has_its_line(self):
        shown = {(page, line) for page, _, line in shown_lines()}
        anywhere = {line for _, line in shown}
        stale = [f"{row.page or 'any page'}: {row.line}" for row in ROWS
                 if (row.page, row.line) not in shown and (row.page or row.line not in anywhere)]
        self.assertEqual(stale, [], "no page has these lines of the tables")

    def test_rows_have_tuples_of_words(self):
        """A single word in parentheses would be compared letter by letter."""
        for row in ROWS:
            for words in (row.shows or (), row.logs, row.lacks, row.needs):
                self.assertIsInstance(words, tuple, row.line)

    def test_lines_of_each_kind_are_found(self):
        text = ("`tarnctl check`, and `tarn\n--help`; not `--help`, `tarn`, `journalctl -t tarn -f`\n"
                "\n    A=b tarn --x  # why\n    tarn --a \\\n        --b\n```sh\nx | tarnctl y\n```\n"
                "| `a \\| tarn --z`, `sudo tarnctl b`, `[ -e x ] && tarn --and` |\n       tarn-lab make\n"
                "```\n$ tarnctl fenced c\n```\n" + SESSION + "tarn --session\n    printed\n")
        found = [line for _, line in of_markdown(text, False)]
        for line in ("tarnctl check", "tarn --help", "A=b tarn --x", "tarn --a --b", "x | tarnctl y",
                     "a | tarn --z", "sudo tarnctl b", "[ -e x ] && tarn --and", "tarn-lab make",
                     "$ tarnctl fenced c"):
            self.assertIn(line, found)
        self.assertNotIn("$ tarn --session", found)
        self.assertNotIn("x | tarnctl y", [line for _, line in of_markdown(text, True)])
        installed = lines_of(SOURCES / "man/tarn.8")
        self.assertIn("tarn --freeck --fripath /volume1/@EP/EP_FRI --tblpath /volume1/@EP/EP_TBL",
                      [line for _, line in installed])

    def test_the_robot_types_each_block_of_the_repair_page(self):
        """Its blocks are left out here: each stands in a step or a recipe, which the robot reads."""
        heading, blocks = "", 0
        for line in (SOURCES / "docs/repair.md").read_text(encoding="utf-8").split("\n"):
            if re.match("#+ ", line) and not re.match("# |## Recipes", line):
                heading = line
            if line == "```sh":
                self.assertRegex(heading, r"^(## Step [0-9a-z]+: |### Recipe [a-z]+$)")
                blocks += 1
        self.assertGreater(blocks, 20)

    def test_each_page_is_read(self):
        self.assertGreaterEqual(len(pages()), 16)


if __name__ == "__main__":
    main()
