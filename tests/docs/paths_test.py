"""What the documents point at is there: links, headings, steps and recipes of the repair page, files of
this tree, what the build makes, presets and units."""
import json
import os
import re
import unittest
from pathlib import Path

from documents import manuals, pages, split
from installed import PROGRAMS, SOURCES, UNITS, main

BUILD = Path(os.environ["TARN_BUILD"])
TOP = "scripts|docs|bench|src|include|tools|tests|man|systemd|completion|debian"
PAGES = sorted({*pages(), *SOURCES.glob("*.md"), *SOURCES.glob("docs/*.md"), *SOURCES.glob("bench/*.md")})


def read(path):
    return path.read_text(encoding="utf-8")


def headings(page):
    """The headings of a page, without marks."""
    return [plain(each) for each in re.findall(r"^#+ (.*)$", read(page), re.M)]


def plain(heading):
    return re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading).replace("`", "").replace("**", "").strip()


def anchor(heading):
    """As the servers that show these pages make it of a heading."""
    return re.sub(r"[^\w\- ]", "", plain(heading).lower()).replace(" ", "-")


def prose(page):
    """The text of a page on one line, without blocks of code."""
    return " ".join(" ".join(split(read(page), False)[1]).split())


class links(unittest.TestCase):
    def test_lead_to_files_and_headings(self):
        seen, broken = 0, []
        for page in PAGES:
            for target in re.findall(r"\]\(([^)\s]+)\)", "\n".join(split(read(page), False)[1])):
                if "://" in target:
                    continue
                name, _, fragment = target.partition("#")
                file = (page.parent / name) if name else page
                seen += 1
                if not file.exists() or (fragment and fragment not in map(anchor, headings(file))):
                    broken.append(f"{page.name}: {target}")
        self.assertEqual(broken, [])
        self.assertGreater(seen, 60)

    def test_quoted_headings_are_there(self):
        """[page](page.md), "Heading"; "Heading" in [page](page.md); see "Heading"."""
        seen, broken = 0, []
        for page in PAGES:
            text = prose(page)
            named = [(name, title) for name, title in re.findall(r'\]\(([\w./-]+\.md)\), "([^"]+)"', text)]
            named += [(name, title) for title, name in
                      re.findall(r'"([^"]+)" in \[[^]]*\]\(([\w./-]+)\)', text)]
            named += [(page.name, title) for title in re.findall(r'\b[Ss]ee "([^"]+)"', text)]
            for name, title in named:
                seen += 1
                if title not in {word for each in headings(page.parent / name)
                                 for word in (each, each.partition(",")[0])}:
                    broken.append(f'{page.name}: "{title}" in {name}')
        self.assertEqual(broken, [])
        self.assertGreaterEqual(seen, 5)

    def test_steps_and_recipes_are_those_of_the_repair_page(self):
        titles = "\n".join(headings(SOURCES / "docs/repair.md"))
        steps = set(re.findall(r"^Step ([0-9a-z]+):", titles, re.M))
        recipes = set(re.findall(r"^Recipe ([a-z]+)$", titles, re.M))
        for page in pages():
            text = prose(page)
            named = {each for found in re.findall(r"\b[Ss]teps? (\d+[a-z]?(?:(?:, | and )\d+[a-z]?)*)", text)
                     for each in re.findall(r"\d+[a-z]?", found)}
            self.assertLessEqual(named, steps, page.name)
            named = set(re.findall(r"\b(?:use|type|with|and|or|copy,|[;:]|end,) [Rr]ecipe ([a-z]+)", text))
            self.assertLessEqual(named, recipes, page.name)
        self.assertGreater(len(steps), 10)
        self.assertGreater(len(recipes), 10)


class paths(unittest.TestCase):
    def test_files_of_the_tree_are_there(self):
        seen, missing = 0, []
        for page in PAGES + manuals():
            for path in re.findall(rf"(?<![\w/$.@*-])((?:{TOP})/[\w./*-]*\w)", read(page)):
                seen += 1
                if not list(SOURCES.glob(path)) + list(SOURCES.glob(path + ".*")):
                    missing.append(f"{page.name}: {path}")
        self.assertEqual(missing, [])
        self.assertGreater(seen, 80)

    def test_what_the_build_makes_is_there(self):
        seen = 0
        for page in PAGES:
            for path in re.findall(r"build/release/([\w./-]*\w)", read(page)):
                self.assertTrue((BUILD / path).exists(), f"{page.name}: build/release/{path}")
                seen += 1
        self.assertGreaterEqual(seen, 1)

    def test_presets_exist(self):
        presets = json.loads(read(SOURCES / "CMakePresets.json"))
        known = {each["name"] for kind in ("configurePresets", "buildPresets") for each in presets[kind]}
        named = {name for page in PAGES for name in
                 re.findall(r"--preset (\w+)|`scripts/test (\w+)`", read(page)) for name in name if name}
        self.assertLessEqual(named, known)
        self.assertIn("release", named)

    def test_units_exist(self):
        known = {each.name for each in UNITS.iterdir()}
        named = {name for page in pages() for name in
                 re.findall(r"\btarn-[\w-]+\.(?:service|timer)\b", read(page))}
        self.assertLessEqual(named, known)
        self.assertGreater(len(named), 3)

    def test_schemas_are_beside_their_pages(self):
        for page in pages():
            for path in re.findall(r"(?<![\w/])schema/[\w.-]+\w", read(page)):
                self.assertTrue((page.parent / path).exists(), f"{page.name}: {path}")


class map_of_the_tree(unittest.TestCase):
    """docs/architecture.md names rooms, and files without their endings."""

    @classmethod
    def setUpClass(cls):
        text = read(SOURCES / "docs/architecture.md")
        cls.rooms = text[text.index("| floor |"):text.index("`tools/lab/` is not")]
        cls.places = text[text.index("## Where is ...?"):text.index("## Tests")]

    def test_rooms_have_their_files(self):
        seen = 0
        for line in self.rooms.split("\n")[2:]:
            top, rooms = SOURCES, []
            for name in re.findall(r"`([\w/*]+)`", line):
                if name.endswith("/"):
                    top = SOURCES / name if (SOURCES / name).is_dir() else top
                    rooms.append(top if top == SOURCES / name else top / name)
                    self.assertTrue(rooms[-1].is_dir(), name)
                elif rooms and name not in PROGRAMS:
                    found = [path for room in [*rooms, top, SOURCES, SOURCES / "tools"]
                             for path in room.glob(name + ".*")]
                    self.assertTrue(found, f"{rooms[-1]}: {name}")
                    seen += 1
        self.assertGreater(seen, 100)

    def test_places_are_there(self):
        seen = 0
        for line in self.places.split("\n"):
            for name in re.findall(r"`([a-z_]+(?:/[\w.-]+)+)`", line.rpartition(" | ")[2]):
                if name.startswith(("volume/", "store/", "cli/", "jnl/", "map/", "view/", "platform/")):
                    name = "src/" + name
                self.assertTrue(list(SOURCES.glob(name)) + list(SOURCES.glob(name + ".*")), line)
                seen += 1
        self.assertGreater(seen, 25)


if __name__ == "__main__":
    main()
