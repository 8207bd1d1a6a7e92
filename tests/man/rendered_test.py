"""The manual pages as mandoc shows them: without warnings, in 80 columns, and with every shell line
of tarn-repair(7) byte for byte as it is in docs/repair.md."""
import re
import shutil
import tempfile
import unittest

from pages import GENERATED, HAND, MADE, main, needs_made_pages, needs_mandoc, read, rendered, run

WELL_KNOWN = {("systemctl", "1"), ("journalctl", "1"), ("xxd", "1")}


def shell_blocks(name):
    """Every block of commands of a page of docs/."""
    return re.findall(r"^```sh\n(.*?)^```$", read(f"docs/{name}.md"), re.M | re.S)


def pages():
    return HAND + [each for each in GENERATED if each.exists()]


def unindented(lines):
    """The lines without the blanks that all of them begin with."""
    indent = min(len(line) - len(line.lstrip()) for line in lines if line)
    return [line[indent:] for line in lines]


def find_block(lines, block):
    """Whether the lines of `block` stand in `lines`, one after another, all indented alike."""
    wanted = block.rstrip("\n").split("\n")
    first = [i for i, line in enumerate(lines) if line.lstrip() == wanted[0].lstrip()]
    return any(unindented(lines[i:i + len(wanted)]) == unindented(wanted) for i in first)


@needs_mandoc
class rendered_pages(unittest.TestCase):
    def test_have_no_warning(self):
        for each in pages():
            self.assertEqual(run("mandoc", "-Tlint", "-W", "warning", str(each)).stdout, "", each)

    def test_are_at_most_80_columns_wide_but_for_commands(self):
        commands = {line.strip() for name in ("repair", "recovery") for block in code_of(name)
                    for line in block.split("\n")}
        for each in pages():
            for line in rendered(each):
                if line.strip() not in commands:
                    self.assertLess(len(line), 80, f"{each}: {line}")


def code_of(name):
    """Every block of code of a page, commands or not."""
    text = read(f"docs/{name}.md")
    indented = re.findall(r"(?:^ {4,}.*\n|^\n)+", text, re.M)
    return shell_blocks(name) + indented


@needs_mandoc
@needs_made_pages
class repair_page(unittest.TestCase):
    def test_has_every_block_of_commands_byte_for_byte(self):
        blocks = shell_blocks("repair")
        self.assertGreater(len(blocks), 25)
        for output in ("ascii", "utf8"):
            lines = rendered(MADE / "tarn-repair.7", output)
            for block in blocks:
                self.assertTrue(find_block(lines, block), output + "\n" + block)

    @unittest.skipUnless(shutil.which("groff"), "groff is not installed")
    def test_has_them_in_the_output_of_a_roff_that_prints_typographic_characters(self):
        text = (MADE / "tarn-repair.7").read_text(encoding="utf-8")
        other = {"-": "u2010", "'": "u2019", "`": "u2018", "^": "u02C6", "~": "u02DC", '"': "u201D"}
        begin = text.index(".Os\n") + 4
        strict = "".join(f".char {one} \\[{glyph}]\n" for one, glyph in other.items())
        with tempfile.NamedTemporaryFile("w", suffix=".7", encoding="utf-8") as file:
            file.write(text[:begin] + strict + text[begin:])
            file.flush()
            lines = run("groff", "-mandoc", "-Tutf8", "-P-cbou", file.name).stdout.split("\n")
        for block in shell_blocks("repair"):
            self.assertTrue(find_block(lines, block), block)


def words_of_markdown(name):
    """The words of a page of docs/ without its marks, links, title and the heads of its tables."""
    text = read(f"docs/{name}.md").split("\n", 1)[1]
    marks = r"\[[^]]*\]\([^)]*\)|^\|.*\|\n\|[-|]+\|$|^```.*$|\*\*|^#+ |^ *- |^\d+\. "
    text = re.sub(marks, " ", text, flags=re.M)
    return letters(re.sub(r"(?<=\s)\|(?=\s|$)|^\|", " ", text, flags=re.M))


def letters(text):
    """Words of letters and digits: quotes and punctuation are not compared."""
    return re.findall(r"\w+", text)


@needs_mandoc
@needs_made_pages
class made_pages(unittest.TestCase):
    def test_have_every_word_of_their_source_in_its_order(self):
        for name in ("messages", "recovery", "repair"):
            shown = letters("\n".join(rendered(MADE / f"tarn-{name}.7")))
            at = 0
            for word in words_of_markdown(name):
                self.assertIn(word, shown[at:at + 60], f"{name}: after {shown[at - 10:at]}")
                at = shown.index(word, at) + 1


class references(unittest.TestCase):
    def test_lead_to_pages_that_exist(self):
        known = {(each.stem, each.suffix[1:]) for each in HAND + GENERATED} | WELL_KNOWN
        for each in pages():
            text = each.read_text(encoding="utf-8")
            found = re.findall(r"(?:^\.|[ ])Xr ([\w.-]+) (\d)", text, re.M)
            self.assertTrue(found, each)
            self.assertLessEqual(set(found), known, each)


if __name__ == "__main__":
    main()
