"""man/from-markdown on texts that roff would take for something else. The expected texts are what a
reader of the page must see."""
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from pages import SOURCES, main, needs_mandoc, rendered

try:
    import markdown_it  # noqa: F401
except ImportError:
    markdown_it = None


def made(text):
    """Runs the script. Returns its exit status, its complaint and the page as mandoc shows it."""
    with tempfile.TemporaryDirectory() as directory:
        source, page = Path(directory) / "x.md", Path(directory) / "x.7"
        source.write_text("# Title\n\nFirst.\n\n## Part\n\n" + text, encoding="utf-8")
        script = str(SOURCES / "man/from-markdown")
        ran = subprocess.run([sys.executable, script, "x", "7", "May 1, 2026", "a page",
                              str(source), str(page)],
                             stderr=subprocess.PIPE, check=False, encoding="utf-8")
        if ran.returncode != 0:
            return ran.returncode, ran.stderr, ""
        lines = rendered(page, "ascii")
    begin, end = lines.index("Part") + 1, lines.index("SEE ALSO")
    return 0, ran.stderr, "\n".join(lines[begin:end]).strip("\n")


@needs_mandoc
@unittest.skipUnless(markdown_it, "python3-markdown-it is not installed")
class from_markdown(unittest.TestCase):
    def assert_shown(self, text, wanted):
        self.assertEqual(made(text), (0, "", wanted))

    def test_commands_stay_as_they_are(self):
        self.assert_shown("```sh\n"
                          ".profile 'a' \"b\" `c` -d --e \\f \\\\g ^h ~i\n"
                          "'quoted'   at  the   beginning\n"
                          "\n"
                          "    No Sy Ql .Ed\n"
                          "```\n",
                          "       .profile 'a' \"b\" `c` -d --e \\f \\\\g ^h ~i\n"
                          "       'quoted'   at  the   beginning\n"
                          "\n"
                          "           No Sy Ql .Ed")

    def test_names_of_macros_are_words(self):
        self.assert_shown("An In of **No Sy** and `Op Li`. Xr (No) At.\n",
                          "     An In of No Sy and `Op Li'. Xr (No) At.")

    def test_marks_touch_what_they_touched(self):
        self.assert_shown("A (`b`), **c**d; `e`/`f`: g.\n",
                          "     A (`b'), cd; `e'/`f': g.")

    def test_a_line_of_text_may_begin_with_a_dot(self):
        self.assert_shown(".profile and\n.hidden\n", "     .profile and .hidden")

    def test_a_link_is_a_reference_where_a_page_exists(self):
        self.assert_shown("See [repair.md](repair.md), [other](other.md).\n",
                          "     See tarn-repair(7), other.")

    def test_blanks_inside_code_stay(self):
        self.assert_shown("`a   b`\n", "     `a   b'")

    def test_lists(self):
        self.assert_shown("- one\n- two\n  lines\n\n1. first\n2. second:\n\n       code here\n",
                          "     o   one\n"
                          "     o   two lines\n"
                          "     1.  first\n"
                          "     2.  second:\n"
                          "\n"
                          "           code here")

    def test_a_table_is_a_list_of_its_first_cells(self):
        self.assert_shown("| you see | it means | lost |\n|---|---|---|\n"
                          "| `--x ...` | bad | **all** |\n| other | | nothing |\n",
                          "     `--x ...'\n"
                          "           bad\n"
                          "           Lost: all\n"
                          "\n"
                          "     other\n"
                          "           Lost: nothing")

    def test_a_picture_is_left_out(self):
        self.assert_shown("Before.\n\n![Boxes and arrows](diagrams/x.svg)\n\nAfter.\n",
                          "     Before.\n\n     After.")
        self.assert_shown("![Boxes](x.svg)\n\n- one\n\n  ![Arrows](y.svg)\n- two\n",
                          "     o   one\n     o   two")

    def test_what_it_does_not_know_ends_it(self):
        status, complaint, _ = made("> quoted\n")
        self.assertEqual((status, complaint), (1, "from-markdown: blockquote_open is unknown\n"))
        status, complaint, _ = made("*slanted*\n")
        self.assertEqual((status, complaint), (1, "from-markdown: em_open is unknown\n"))
        for text in ("A picture ![in a line](x.svg)\n", "![A picture](x.svg) and words\n"):
            status, complaint, _ = made(text)
            self.assertEqual((status, complaint), (1, "from-markdown: image is unknown\n"))


if __name__ == "__main__":
    main()
