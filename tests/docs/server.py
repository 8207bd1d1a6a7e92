"""A scratch server on which the command lines of the documents run: a sample of tarn-lab in the place
of the volumes, the journal and the other paths that the pages name.

Below: documents.py (the lines), installed.py (scratch directories). Above: the tests, each with a table
of rows, one for each line and situation."""
import os
import re
import shutil
from pathlib import Path
from typing import NamedTuple

from documents import lines_of, manuals, pages
from installed import PROGRAMS, run, scratch_test

# What a shell knows on the scratch server. The paths of the pages become these words.
PLACES = {"V": "lab/volume1", "W": "lab/volume2", "J": "lab/journal/EP_JNL", "LAB": "lab",
          "STATE": "state", "RESCUE": "rescue", "LOG": "log",
          "MAP": "lab/volume1/@iSCSITrg/LUN_1/LUN_1_Extent_0"}
PATHS = {"/volume1": "$V", "/var/lib/tarn": "$STATE", "/srv/rescue": "$RESCUE", "/srv/lab": "$LAB",
         "/srv/lab2": "$LAB", "/root/rescue.conf": "$STATE/rescue.conf", "DIR": "$LAB",
         "/var/lib/prometheus/node-exporter": "$STATE", "/dev/sdx": "$RESCUE/sdx"}
PATH = re.compile(r"(?<![\w$.])(" + "|".join(sorted(PATHS, key=len, reverse=True)) + r")(?![\w-])")
# No service of this machine is stopped. The commands on one map would ask /volume1 for the size.
SETTINGS = "service_pause = /bin/true\nextent_shift = 20\n"
PLUGIN = os.environ.get("NBDKIT_TARN_PLUGIN", "")
PRELOAD = os.environ.get("TARN_PRELOAD", "")  # takes the lines for the log; not with a sanitizer
# Programs of the machine that a test must not reach, and an nbdkit that finds the built plug-in.
SHIMS = {"journalctl": 'cat "$LOG.journal"', "mail": 'cat >"$STATE/mail"',
         "nbdkit": 'for word; do [ "$word" != tarn ] || word=' + PLUGIN + '; set -- "$@" "$word"; '
                   f'shift; done; exec {shutil.which("nbdkit")} "$@"'}
MAKE = "tarn-lab make $LAB --seed 3"
CRASH = "tarn-lab make $LAB --seed 11 --crash"
FILES = "--fripath $V/@EP/EP_FRI --tblpath $V/@EP/EP_TBL"
BUSY = MAKE + " --luns 8"  # with a LUN_7


def status(word):
    """A command that sets the journal's status; it ends with 255."""
    return f"tarn --set-status {word}; [ $? = 255 ] || exit; "


def damage(kind, seed=1):
    """A command that damages volume 1. DAMAGED is the file then."""
    return f"tarn-lab damage $LAB {kind} --seed {seed} >$STATE/damage || exit; "


# Shell: a table and an index without lists, whose group count is 2, less than the groups in use.
TOO_LOW = ("tarn --import-volume --volpath $V || exit; PYTHONPATH=$TARN_SOURCES/tests/ctl python3 -B -c '"
           "import sys; from damaging import change_node; "
           'change_node(sys.argv[1], 2, 1, 8, (2).to_bytes(8, "little"))\' $V/@EP_FIX/EP_FRI; ')
REBUILT = FILES.replace("@EP/", "@EP_FIX/")
DAMAGED = "$LAB/$(sed 's/: .*//' $STATE/damage)"


class row(NamedTuple):
    """A line of the documents in one situation, and what they say about it."""
    line: str  # as the page has it, but for its comment
    shows: object = ()  # words that are printed, in any order; "" if nothing at all is printed
    status: int = 0
    page: str = ""  # a page which describes this situation; all pages, if empty
    make: str = MAKE  # makes the sample; empty: the line itself makes it
    first: str = ""  # shell commands that lead to the situation
    words: dict = {}  # what stands for "...", for placeholders in capitals, or cannot run here
    more: str = ""  # arguments that the page leaves out
    logs: tuple = ()  # words of the lines in the log; checked where the log can be taken
    lacks: tuple = ()  # words that are not printed
    then: str = ""  # shell commands that must end with 0 afterwards
    needs: tuple = ()  # programs without which the line cannot run

    def command(self):
        """The line as it is typed on the scratch server."""
        text = self.line
        for word, by in self.words.items():
            assert word in text, (self.line, word)
            text = text.replace(word, by)
        return PATH.sub(lambda found: PATHS[found.group()], text) + " " + self.more


def one_line(text):
    return " ".join(text.split())


class on_a_server(scratch_test):
    """Runs rows, each on a server of its own."""

    def shell(self, text, **environment):
        places = {name: str(self.place / path) for name, path in PLACES.items()}
        programs = [str(Path(each).parent) for each in PROGRAMS.values()]
        return run(["sh", "-c", 'cd "$LAB/.." || exit\n' + text],
                   PATH=":".join([str(self.place / "bin"), *programs, os.environ["PATH"]]),
                   TARN_PLATFORM_CONF=str(self.place / "lab/platform.conf"), **places, **environment)

    def must(self, text):
        done = self.shell(text)
        self.assertEqual(done.returncode, 0, f"{text}\n{done.stdout[-2000:]}")

    def prepare(self, each):
        shutil.rmtree(self.place)
        for name, text in SHIMS.items():
            self.write("bin/" + name, "#!/bin/sh\n" + text + "\n").chmod(0o755)
        for name in ("state", "rescue", "lab"):
            (self.place / name).mkdir()
        self.write("log.journal", "")
        if each.make:
            self.must(each.make)
            with (self.place / "lab/platform.conf").open("a", encoding="utf-8") as conf:
                conf.write(SETTINGS)
        self.must(each.first or ":")

    def check(self, each):
        done = self.shell(each.command(), TARN_PRELOAD_LOG=str(self.place / "log"),
                          **({"LD_PRELOAD": PRELOAD} if PRELOAD else {}))
        printed = one_line(done.stdout)
        self.assertEqual(done.returncode, each.status, printed[-2000:])
        if each.shows == "":
            self.assertEqual(printed, "")
        for words in each.shows:
            self.assertIn(words, printed)
        for words in each.lacks:
            self.assertNotIn(words, printed)
        logged = self.place / "log"
        log = one_line(logged.read_text(encoding="utf-8")) if logged.exists() else ""
        for words in each.logs if PRELOAD else ():
            self.assertIn(words, log)
        self.must(each.then or ":")

    def play(self, rows):
        for each in rows:
            with self.subTest(line=each.line, page=each.page or "any"):
                missing = [name for name in each.needs if not shutil.which(name)]
                if missing or ("nbdkit" in each.needs and not PLUGIN):
                    self.skipTest(f"{missing or 'the plug-in'} is not here")
                self.prepare(each)
                self.check(each)


def shown_lines():
    """(page, number, line) of each command line of the documents."""
    return [(page.name, number, line) for page in pages() + manuals()
            for number, line in lines_of(page)]
