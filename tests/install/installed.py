"""What the tests of the installed files share: where the sources and the built programs are, scratch
directories, and running things. The environment names the directories and programs."""
import os
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SOURCES = Path(os.environ["TARN_SOURCES"])  # the top of the tree
UNITS = SOURCES / "systemd"
VALUE = UNITS / "platform-value"
PROGRAMS = {name: os.environ.get(key) for name, key in
            (("tarn", "TARN"), ("tarnctl", "TARNCTL"), ("tarn-lab", "TARN_LAB"))}


def run(words, **environment):
    """Runs it with the additional environment. Standard output and error are text, together."""
    return subprocess.run([str(word) for word in words], text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, check=False, timeout=120,
                          env={**os.environ, "LC_ALL": "C", **environment})


class scratch_test(unittest.TestCase):
    """A test with a directory of its own."""

    def setUp(self):
        self.place = Path(tempfile.mkdtemp(prefix="tarn-test-"))
        self.addCleanup(shutil.rmtree, self.place)

    def write(self, name, text):
        path = self.place / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")
        return path

    def sample(self, *options):
        """A sample of tarn-lab. Returns its directory."""
        made = run([PROGRAMS["tarn-lab"], "make", self.place / "lab", "--seed", "3", *options])
        self.assertEqual(made.returncode, 0, made.stdout)
        return self.place / "lab"


def needs(program):
    return unittest.skipUnless(shutil.which(program), f"{program} is not installed")


def main():
    """Runs the tests of a file. ctest takes its status 77 for a skipped test."""
    ran = unittest.main(exit=False, verbosity=0).result
    for test, why in ran.skipped:
        print(f"Not run: {test.id()}: {why}")
    sys.exit(1 if not ran.wasSuccessful() or not ran.testsRun else 77 if ran.skipped else 0)
