"""tarn-platform.conf(5) has every key, default, bound and complaint of the parser."""
import re
import unittest

from pages import items, main, page, plain, read, section

TEXT = page("tarn-platform.conf.5")
SOURCE = read("src/platform/config.cpp")


class platform_page(unittest.TestCase):
    def test_has_every_key_and_no_other(self):
        keys = re.findall(r'\{"(\w+)", &platform_config::', SOURCE)
        self.assertEqual(len(keys), 5)
        described = section(TEXT, "DESCRIPTION")
        self.assertEqual([head for head, _ in items(described)], ["Ic " + key for key in keys])

    def test_has_the_defaults(self):
        path = re.search(r'DEFAULT_FILE = "(.*)"', SOURCE).group(1)
        self.assertIn(f".It Pa {path}\n", section(TEXT, "FILES"))
        root = re.search(r'DEFAULT_JOURNAL_ROOT = "(.*)"', SOURCE).group(1)
        self.assertIn(f"Default:\n.Pa {root} .\n", TEXT)
        self.assertIn(f"secure_getenv(\"{re.search('.It Ev (.*)', TEXT).group(1)}\")", SOURCE)

    def test_has_the_bounds(self):
        shifts = re.search(r"shift >= (\d+) &&\s+shift <= (\d+)", SOURCE).groups()
        self.assertIn("from %s to %s;" % shifts, TEXT)
        self.assertIn("outside %s to %s;" % shifts, TEXT)
        words = re.search(r"PROGRAM_ARGUMENTS_MAX = (\d+)", read("src/platform/programs.h"))
        most = int(words.group(1)) - 3
        self.assertIn(f"\n{most} words at most.", TEXT)
        self.assertIn(f"than {most} words;", " ".join(TEXT.split()))
        size = re.search(r"PLATFORM_VALUE_SIZE = (\d+)", read("src/platform/config.h")).group(1)
        self.assertIn(f"a value of {size} bytes or more", TEXT)

    def test_has_every_complaint_and_no_other(self):
        complaints = re.findall(r'return "([^"%]+)";', SOURCE)
        complaints += re.findall(r"\? \"(zero byte)\" : \"(line too long)\"", SOURCE)[0]
        complaints += re.findall(r"\? \"(others may write it)\"", SOURCE)
        complaints += ["cannot be read"] * ("line 0: cannot be read" in SOURCE)
        shown = [plain(head).removeprefix("refused: ")
                 for head, _ in items(section(TEXT, "DIAGNOSTICS"))]
        self.assertGreater(len(complaints), 8)
        self.assertEqual(sorted(shown), sorted(complaints))

    def test_its_example_has_only_known_keys(self):
        example = re.search(r"\.Bd.*?\n(.*?)\.Ed", section(TEXT, "EXAMPLES"), re.S).group(1)
        for line in example.splitlines():
            if not line.startswith("#"):
                self.assertIn(f'{{"{line.split()[0]}", ', SOURCE)


if __name__ == "__main__":
    main()
