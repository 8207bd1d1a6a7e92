"""What the tests of the manual pages share: where the pages and the sources are, and the parts of a
page. The environment names the directories and programs."""
import os
import re
import shutil
import subprocess
import sys
import unittest
from pathlib import Path

SOURCES = Path(os.environ["TARN_SOURCES"])  # the top of the tree
MADE = Path(os.environ["TARN_MAN_MADE"])  # the pages that the build makes
HAND = sorted((SOURCES / "man").glob("*.[1-8]"))
GENERATED = [MADE / f"tarn-{name}.7" for name in ("messages", "recovery", "repair")]


def read(path):
    return (SOURCES / path).read_text(encoding="utf-8")


def page(name):
    return read("man/" + name)


def plain(text):
    """The characters of a line of mdoc, without its escapes."""
    return text.replace("\\&", "").replace("\\-", "-").replace("\\(aq", "'").replace("\\e", "\\")


def section(text, heading, kind="Sh"):
    """The lines below a heading, up to the next one of its kind or above."""
    stop = r"^\.S[hs] " if kind == "Ss" else r"^\.Sh "
    found = re.search(rf"^\.{kind} (?:\\&)?{re.escape(heading)}$(.*?)(?={stop}|\Z)", text,
                      re.M | re.S)
    assert found, f"no section {heading}"
    return found.group(1)


def items(text):
    """The items of the outermost lists: pairs of the head, without .It, and everything below it."""
    found, depth = [], 0
    for line in text.split("\n"):
        if line.startswith(".It ") and depth == 1:
            found.append([plain(line[4:]), ""])
            continue
        depth += line.startswith(".Bl ") - line.startswith(".El")
        if found and depth > 0:
            found[-1][1] += line + "\n"
    return [tuple(each) for each in found]


def options(text):
    """Option -> whether it has an argument, of all items in `text`."""
    found = {}
    for head in re.findall(r"^\.It Fl (.*)$", text, re.M):
        name, *rest = plain(head).split()
        found["-" + name] = rest[:1] == ["Ar"]
    return found


def run(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
                          encoding="utf-8", timeout=60)


def rendered(path, output="utf8"):
    """The lines of a page, 78 columns wide."""
    shown = run("mandoc", "-T" + output, "-Owidth=78", str(path)).stdout
    return re.sub(".\b", "", shown).split("\n")


def needs_mandoc(test):
    return unittest.skipUnless(shutil.which("mandoc"), "mandoc is not installed")(test)


def needs_made_pages(test):
    return unittest.skipUnless(all(each.exists() for each in GENERATED),
                               "the pages of section 7 were not made")(test)


def main():
    """Runs the tests of a file. ctest takes its status 77 for a skipped test."""
    ran = unittest.main(exit=False, verbosity=0).result
    for test, why in ran.skipped:
        print(f"Not run: {test.id()}: {why}")
    sys.exit(1 if not ran.wasSuccessful() else 77 if ran.skipped else 0)
