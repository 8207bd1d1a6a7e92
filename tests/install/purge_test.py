"""The package's maintainer scripts: what a purge removes, and that it removes no journal."""
import re

from installed import SOURCES, main, run, scratch_test

STATE = "/var/lib/tarn"


class maintainer_scripts(scratch_test):
    def script(self, name, *words):
        """Runs a script on another directory instead of /var/lib/tarn."""
        text = (SOURCES / "debian" / f"tarn.{name}").read_text(encoding="utf-8")
        self.assertGreater(text.count(STATE), 1)
        path = self.write(name, re.sub(STATE, str(self.place / "tarn"), text))
        got = run(["/bin/sh", path, *words])
        self.assertEqual(got.returncode, 0, got.stdout)
        return got.stdout

    def left(self):
        return sorted(str(each.relative_to(self.place / "tarn"))
                      for each in (self.place / "tarn").rglob("*") if each.is_file())

    def test_the_directory_is_made_for_root_alone_and_an_old_one_keeps_its_mode(self):
        self.script("postinst", "configure")
        self.assertEqual((self.place / "tarn").stat().st_mode & 0o777, 0o700)
        (self.place / "tarn").chmod(0o750)
        self.script("postinst", "configure", "1.0.0-1")
        self.assertEqual((self.place / "tarn").stat().st_mode & 0o777, 0o750)

    def test_a_purge_removes_the_state_of_the_check_and_an_empty_directory(self):
        self.write("tarn/health.json", "{}")
        (self.place / "tarn/kept").mkdir()
        self.assertEqual(self.script("postrm", "purge"), "")
        self.assertFalse((self.place / "tarn").exists())

    def test_a_purge_leaves_everything_that_cannot_be_made_again(self):
        kept = ["EP_JNL", "EP_JNL.aside", "inventory", "inventory.1",
                "kept/20250101T000000Z-bad/journal.copy", "undo/1"]
        for name in [*kept, "health.json"]:
            self.write(f"tarn/{name}", "x")
        said = self.script("postrm", "purge")
        self.assertEqual(said.count("\n"), 1)
        self.assertIn("is not empty and stays", said)
        self.assertEqual(self.left(), kept)

    def test_each_of_them_alone_keeps_the_directory(self):
        for name in ("EP_JNL", "inventory", "kept/20250101T000000Z-bad/journal.copy"):
            self.write(f"tarn/{name}", "x")
            self.script("postrm", "purge")
            self.assertEqual(self.left(), [name])
            (self.place / "tarn" / name).unlink()

    def test_a_removal_and_an_upgrade_touch_nothing(self):
        for words in (["remove"], ["upgrade", "1.0.0-1"], ["abort-install"]):
            self.write("tarn/health.json", "{}")
            self.assertEqual(self.script("postrm", *words), "")
            self.assertEqual(self.left(), ["health.json"])


if __name__ == "__main__":
    main()
