"""The diagrams of docs/: each can be read, is shown by a page, and says what the page, the unit and
the sources say. A worked example in one must be sound by the rules of docs/formats.md."""
import itertools
import os
import re
import unittest
from pathlib import Path

from drawing import SVG, crosses, drawing, points_of

SOURCES = Path(os.environ["TARN_SOURCES"])
DOCS = SOURCES / "docs"
ALL = [drawing(path) for path in sorted((DOCS / "diagrams").glob("*.svg"))]
PAGES = {path.name: path.read_text(encoding="utf-8") for path in DOCS.glob("*.md")}
IMAGE = re.compile(r"!\[([^\]]*)\]\(([^)]*)\)")
# What a page must have too: files, pages, steps, numbers.
WORD = re.compile(r"\b(?:EP_\w+|0x[0-9A-F]+|\d{2,}|\w+\.md|[Ss]tep \d\w*)")
MAX_BYTES = 16384  # a diagram is a small text


def diagram(name):
    return next(each for each in ALL if each.name == name)


def text_in(element):
    return "".join(element.itertext())


def pages_of(picture):
    """The pages that show it; one that only links to it need not explain it."""
    return {name: text for name, text in PAGES.items()
            if f"diagrams/{picture.name}" in [path for _, path in IMAGE.findall(text)]}


def section(page, heading):
    """The text below a heading, up to the next one."""
    return PAGES[page].split(f"\n{heading}\n")[1].split("\n## ")[0]


def rows(text):
    """The cells of the rows of the tables in `text`, without the names of the columns."""
    lines = [line for line in text.split("\n") if line.startswith("| ")]
    return [[cell.strip() for cell in line.split("|")[1:-1]] for line in lines[1:]]


def luminance(colour):
    parts = [int(colour[i:i + 2], 16) / 255 for i in (1, 3, 5)]
    linear = [part / 12.92 if part <= 0.04045 else ((part + 0.055) / 1.055) ** 2.4
              for part in parts]
    return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]


def contrast(one, other):
    low, high = sorted((luminance(one), luminance(other)))
    return (high + 0.05) / (low + 0.05)


def for_each(test):
    """Runs a test on each diagram."""
    def run(self):
        self.assertNotEqual(ALL, [])
        for picture in ALL:
            with self.subTest(picture.name):
                test(self, picture)
    return run


class every_diagram(unittest.TestCase):
    @for_each
    def test_it_has_a_title_and_a_description(self, picture):
        self.assertEqual(picture.root.tag, SVG + "svg")
        self.assertGreater(len(picture.root.findtext(SVG + "title", "")), 10)
        self.assertGreater(len(picture.root.findtext(SVG + "desc", "")), 50)
        self.assertEqual((picture.text_of("title"), picture.text_of("desc")),
                         (picture.root.findtext(SVG + "title"),
                          picture.root.findtext(SVG + "desc")))
        self.assertEqual(picture.root.get("aria-labelledby"), "title desc")

    @for_each
    def test_it_is_small_and_needs_nothing_else(self, picture):
        known = {SVG + tag for tag in ("svg", "title", "desc", "style", "marker", "path", "rect",
                                       "text", "tspan")}
        self.assertLess(len(picture.source), MAX_BYTES)
        self.assertLessEqual({each.tag for each in picture.root.iter()}, known)
        self.assertNotRegex(picture.source.replace('"http://www.w3.org/2000/svg"', ""),
                            r"https?:|@import|@font-face|href|data:|url\([^#]")

    def test_all_have_the_same_style(self):
        self.assertEqual(len({each.style for each in ALL}), 1)

    @for_each
    def test_it_has_a_background_of_its_own(self, picture):
        page, view = picture.rects[0], picture.view
        self.assertEqual(page.classes, ["page"])
        self.assertEqual([page.x1, page.y1, page.x2, page.y2],
                         [1, 1, view[2] - 1, view[3] - 1])
        self.assertEqual(view[:3], [0, 0, 800])
        self.assertEqual([picture.root.get("width"), picture.root.get("height")],
                         [f"{number:g}" for number in view[2:]])

    @for_each
    def test_a_page_shows_it(self, picture):
        self.assertNotEqual(pages_of(picture), {})

    def test_every_image_is_there_and_has_other_text(self):
        shown = [(page, *found) for page, text in PAGES.items() for found in IMAGE.findall(text)]
        for page, other, target in shown:
            self.assertTrue((DOCS / target).is_file(), f"{page}: {target}")
            self.assertGreater(len(other), 30, f"{page}: {target}")

    def test_they_go_where_the_pages_go(self):
        """Links name them by their place beside the pages."""
        for path, pages in (("debian/tarn.docs", "docs/*.md"),
                            ("scripts/rescue-archive", "docs/repair.md")):
            words = (SOURCES / path).read_text(encoding="utf-8").split()
            self.assertIn(pages, words)
            self.assertIn("docs/diagrams", words)

    @for_each
    def test_the_type_is_large_enough(self, picture):
        for text in picture.texts:
            self.assertGreaterEqual(picture.size(text.classes), 12, text_in(text.element))

    @for_each
    def test_every_text_is_inside_or_outside_of_each_box(self, picture):
        for text in picture.texts:
            met = [rect for rect in picture.rects if rect.meets(text)]
            self.assertTrue(met and all(rect.holds(text) for rect in met), text_in(text.element))

    @for_each
    def test_nothing_touches_a_text(self, picture):
        for one, other in itertools.combinations(picture.texts, 2):
            self.assertFalse(one.meets(other),
                             f"{text_in(one.element)} / {text_in(other.element)}")
        for path in picture.paths():
            for begin, end in (pair for line in points_of(path)
                               for pair in itertools.pairwise(line)):
                for text in picture.texts:
                    self.assertFalse(crosses(begin, end, text),
                                     f"{text_in(text.element)} / {path.get('d')}")

    @for_each
    def test_every_text_stands_out(self, picture):
        for text in picture.texts:
            below = [rect for rect in picture.rects if rect.holds(text)][-1]
            self.assertGreater(contrast(picture.rule(text.classes, "fill"),
                                        picture.rule(below.classes, "fill")), 4.5,
                               text_in(text.element))

    @for_each
    def test_its_names_and_numbers_are_on_the_page(self, picture):
        words = {name.removesuffix("...") for name in picture.names() if not name[0].isdigit()}
        example = {text_in(text.element) for text in picture.texts if "sample" in text.classes}
        said = [text_in(text.element) for text in picture.texts]
        said.append(picture.root.findtext(SVG + "desc", ""))
        for text in said:
            words |= set(WORD.findall(text)) - example
        self.assertNotEqual(words, set())
        for page, content in pages_of(picture).items():
            for word in words:
                self.assertRegex(content, rf"(?i)(?<!\w){re.escape(word)}(?!\d)", page)


class files(unittest.TestCase):
    """The worked example: each entry of the table is what the maps and the lists make of it."""
    PICTURE = diagram("files.svg")

    def named(self):
        """The lpa of each mapped entry, by the entry's name in the picture."""
        maps = {element.get("id"): text_in(element)
                for element in self.PICTURE.root.iter(SVG + "text")
                if re.fullmatch(r"(snapshot|lun|rod|buffer)-\d", element.get("id", ""))}
        self.assertEqual(len(maps), 8)
        return {name: int(text.removeprefix("lpa ")) for name, text in maps.items() if text != "-"}

    def entry(self, lpa):
        return int(self.PICTURE.text_of(f"table-{lpa}"), 16)

    def test_each_count_is_the_number_of_entries_that_name_the_extent(self):
        named = list(self.named().values())
        for lpa in set(named):
            self.assertEqual(self.entry(lpa), 0x8000 | named.count(lpa))
            self.assertEqual(self.PICTURE.text_of(f"means-{lpa}"), f"used, {named.count(lpa)}")
        self.assertEqual(max(named.count(lpa) for lpa in named), 2)

    def test_the_other_extents_are_the_free_list(self):
        free = [lpa for lpa in range(8) if lpa not in self.named().values()]
        for lpa, after in itertools.pairwise(free):
            self.assertEqual(self.entry(lpa), after)
            self.assertEqual(self.PICTURE.text_of(f"means-{lpa}"), f"next {after}")
        self.assertEqual(self.entry(free[-1]), 0x1000)
        self.assertEqual(self.PICTURE.text_of(f"means-{free[-1]}"), "tail")
        self.assertEqual(self.PICTURE.text_of("group"), f"group 0: {len(free)} free extents")
        self.assertEqual(self.PICTURE.text_of("group-links"), f"head {free[0]}, next group 1")

    def test_each_arrow_goes_where_its_entry_says(self):
        free = [lpa for lpa in range(8) if lpa not in self.named().values()]
        wanted = {f"{name}-to-{lpa}": ("above", lpa) for name, lpa in self.named().items()}
        wanted |= {f"table-{one}-to-{other}": ("below", other)
                   for one, other in itertools.pairwise(free)}
        wanted[f"group-0-to-{free[0]}"] = "below", free[0]
        arrows = {path.get("id"): points_of(path)[0] for path in self.PICTURE.paths()}
        self.assertEqual(set(arrows) - {"head-to-group-0", "group-0-to-group-1"}, set(wanted))
        for name, (side, lpa) in wanted.items():
            (from_x, _), (x, y) = arrows[name][0], arrows[name][-1]
            begin = float(self.PICTURE.by_id(f"table-{lpa}").get("x"))
            self.assertLess(abs(x - begin), 35, name)
            self.assertEqual(y, 194 if side == "above" else 288, name)
            if side == "above":
                source = self.PICTURE.by_id(name.split("-to-")[0])
                self.assertLess(abs(from_x - float(source.get("x"))), 30, name)


class blocks(unittest.TestCase):
    PICTURE = diagram("blocks.svg")

    def test_the_entries_fill_their_bytes(self):
        for kind in ("table", "index", "map"):
            count, width = map(int, re.findall(r"\d+", self.PICTURE.text_of(f"entries-{kind}")))
            self.assertEqual(count * width, 504)

    def test_the_numbers_are_those_of_the_sources(self):
        for kind, header, entry, count in (
                ("table", "src/tbl/tbl_format.h", "tbl_entry", "TBL_BLOCK_ENTRIES"),
                ("index", "src/fri/fri_format.h", "fri_entry", "FRI_BLOCK_ENTRIES"),
                ("map", "src/map/map_format.h", "map_entry", "MAP_NODE_ENTRIES")):
            source = (SOURCES / header).read_text(encoding="utf-8")
            size = re.search(rf"sizeof\({entry}\) == (\d+)", source).group(1)
            entries = re.search(rf"{count} = (\d+);", source).group(1)
            self.assertRegex(self.PICTURE.text_of(f"entries-{kind}"),
                             f"{entries} entries of {size} bytes$")


class journal(unittest.TestCase):
    """The ring in the picture is one that the rules of docs/recovery.md allow."""
    PICTURE = diagram("journal.svg")

    def setUp(self):
        """The blocks from left to right: class of the box, its edges, its three texts."""
        self.ring = []
        for rect in (each for each in self.PICTURE.rects if each.y2 - each.y1 == 72):
            inside = [text_in(text.element) for text in self.PICTURE.texts if rect.holds(text)]
            self.ring.append((rect.classes[0], rect.x1, rect.x2, inside))

    def blocks_of(self, kind):
        return [each for each in self.ring if each[0] == kind]

    def test_the_transactions_are_numbered_and_flagged(self):
        self.assertEqual(len(self.ring), 15)
        for (*_, one), (*_, other) in itertools.pairwise(self.ring):
            if one == ["..."] or other == ["..."]:
                continue
            if "last" in one:
                self.assertEqual(other[1], "0")
                self.assertEqual(int(other[0]), int(one[0]) + 1)
            elif one[0] == other[0]:
                self.assertEqual(int(other[1]), int(one[1]) + 1)
            else:
                self.assertEqual(one[:2], ["201", "1"])  # the torn one is cut by an old block

    def test_the_window_is_128_complete_transactions(self):
        window = [each[3] for each in self.blocks_of("good")]
        first, newest = int(window[0][0]), int(window[-1][0])
        self.assertEqual((window[0][1], window[-1][2]), ("0", "last"))
        self.assertEqual(newest - first + 1, 128)
        self.assertTrue(all("last" not in each[3] for each in self.blocks_of("bad")))
        self.assertEqual({each[3][0] for each in self.blocks_of("bad")}, {str(newest + 1)})
        (begin, _), (end, _) = points_of(self.PICTURE.by_id("walk"))[0]
        self.assertEqual(begin, self.blocks_of("good")[-1][2])
        self.assertEqual(end, self.blocks_of("good")[0][1])

    def test_the_header_names_the_newest_complete_transaction(self):
        x = points_of(self.PICTURE.by_id("header-names"))[0][-1][0]
        named = next(texts for _, left, right, texts in self.ring if left < x < right)
        self.assertEqual(named[:2], [self.blocks_of("good")[-1][3][0], "0"])


class start(unittest.TestCase):
    PICTURE = diagram("start.svg")

    def below_each_other(self, left):
        """The texts that begin at `left`, from top to bottom."""
        found = [text for text in self.PICTURE.texts if float(text.element.get("x")) == left]
        return [text_in(text.element) for text in sorted(found, key=lambda text: text.y1)]

    def test_the_steps_are_those_of_the_unit(self):
        unit = (SOURCES / "systemd/tarn-startup-replay.service").read_text(encoding="utf-8")
        ran = re.findall(r"^ExecStart(?:Pre)?=-?\S*/(.*?)(?: --inventory \S*)?$", unit, re.M)
        self.assertEqual(self.below_each_other(48)[0::2], ran)
        self.assertEqual(re.findall(r"^ExecStartPre=-.*/(.*)$", unit, re.M), [ran[0]])
        self.assertEqual(self.below_each_other(432)[2], "never stops the start")  # below the mounts
        stops = [text_in(text.element) for text in self.PICTURE.texts].count("stops")
        self.assertEqual(stops, len(ran) - 1)

    def test_what_stops_it_is_the_table_of_the_page(self):
        shown = "\n".join(self.below_each_other(432))
        at = 0
        for seen, _, do in rows(section("install.md", "## When the service does not start")):
            for word in re.findall("`([^`]*)`", seen) or [seen]:
                if not word.startswith("is an empty"):  # one text of its row is enough
                    self.assertIn(word, shown[at:])
            for page in re.findall(r"\[(\w+\.md)\]", do):
                self.assertIn(page, shown[at:])
            at = shown.index((re.findall("`([^`]*)`", seen) or [seen])[0])
        self.assertTrue(shown[at:].startswith("anything else"))


class repair(unittest.TestCase):
    """Each arrow is a row of the page, and each row an arrow or a word in its step's box."""
    PICTURE = diagram("repair.svg")

    def setUp(self):
        self.steps = dict(re.findall(r"^## Step (\w+): (.*)$", PAGES["repair.md"], re.M))
        self.next = {}
        for step, title in self.steps.items():
            table = rows(section("repair.md", f"## Step {step}: {title}"))
            self.next[step] = {word for row in table for word in
                               re.findall(r"step \w+|stop|mend|done", row[4])}
        # The row of a journal that was marked bad also leads elsewhere.
        self.assertIn("use recipe without and go to step 3",
                      section("repair.md", "## Step 4: The journal"))
        self.boxes = {rect.element.get("id"): rect for rect in self.PICTURE.rects
                      if rect.element.get("id")}

    def test_the_boxes_are_the_steps(self):
        self.assertEqual(set(self.boxes), {"step-" + step for step in self.steps})
        for step, title in self.steps.items():
            self.assertEqual(self.PICTURE.text_of(f"title-{step}"), title)
            inside = [text_in(text.element) for text in self.PICTURE.texts
                      if self.boxes["step-" + step].holds(text)]
            self.assertEqual(inside[0], f"Step {step}")
            self.assertIn(title, inside)

    def test_the_arrows_are_the_rows(self):
        wanted = {f"{step}-to-{word.removeprefix('step ')}" for step, words in self.next.items()
                  for word in words if word not in ("stop", "mend", f"step {step}")}
        self.assertEqual({path.get("id") for path in self.PICTURE.paths()}, wanted)

    def test_the_words_in_the_boxes_are_the_other_rows(self):
        for step, words in self.next.items():
            wanted = ["again"] if f"step {step}" in words else []
            wanted += sorted(words & {"mend", "stop"})
            shown = [text_in(text.element) for text in self.PICTURE.texts
                     if text.element.get("id") == f"ends-{step}"]
            self.assertEqual(shown, ["or " + ", ".join(wanted)] if wanted else [], step)

    def test_each_arrow_touches_its_two_boxes_and_no_other(self):
        done = next(rect for rect in self.PICTURE.rects if "good" in rect.classes)
        boxes = self.boxes | {"step-done": done}
        for path in self.PICTURE.paths():
            line, = points_of(path)
            ends = ["step-" + step for step in path.get("id").split("-to-")]
            for (x, y), name in zip((line[0], line[-1]), ends):
                rect = boxes[name]
                self.assertTrue(rect.x1 <= x <= rect.x2 and rect.y1 <= y <= rect.y2, path.get("id"))
                self.assertTrue(x in (rect.x1, rect.x2) or y in (rect.y1, rect.y2), path.get("id"))
            for begin, end in itertools.pairwise(line):
                for rect in boxes.values():
                    self.assertFalse(crosses(begin, end, rect), path.get("id"))


class floors(unittest.TestCase):
    """What the sources include lies below in the picture, or on the same floor further left."""
    PICTURE = diagram("floors.svg")

    def setUp(self):
        self.rooms = {rect.element.get("id"): rect for rect in self.PICTURE.rects
                      if rect.element.get("id")}

    def test_every_room_is_there(self):
        below_src = {f"src/{path.name}" for path in (SOURCES / "src").iterdir() if path.is_dir()}
        self.assertEqual(set(self.rooms), below_src | {"include", "tools/ctl", "tools/nbdkit"})
        for name, rect in self.rooms.items():
            inside = [text_in(text.element) for text in self.PICTURE.texts if rect.holds(text)]
            self.assertEqual(inside[0], name + "/")

    def includes(self):
        """Room, included file and source of each #include."""
        for name in self.rooms:
            for path in (SOURCES / name).rglob("*"):
                if path.suffix in (".h", ".cpp"):
                    source = path.read_text(encoding="utf-8")
                    for include in re.findall(r'^#include "([^"]+)"', source, re.M):
                        yield name, include, path

    def room_of(self, include):
        for top in ("src", "tools", "include"):
            if (SOURCES / top / include).is_file():
                return next((name for name in self.rooms
                             if f"{top}/{include}".startswith(name + "/")), None)
        return None  # a file beside the source, made by the build, or of a library

    def test_a_room_includes_what_is_below_or_further_left(self):
        seen = set()
        for name, include, path in self.includes():
            other = self.room_of(include)
            if other in (None, name):
                continue
            seen.add(name)
            room, to = self.rooms[name], self.rooms[other]
            self.assertTrue(to.y1 > room.y1 or (to.y1 == room.y1 and to.x2 < room.x1),
                            f"{path} includes {include}")
        self.assertEqual(seen, set(self.rooms) - {"include"})


if __name__ == "__main__":
    unittest.main(verbosity=0)
