"""keep-evidence: what it copies before a start-up replay, what it leaves out, and how much it keeps.
write-inventory: only after a clean shutdown."""
import os
import re
import stat

from installed import PROGRAMS, UNITS, VALUE, main, run, scratch_test

STATUS = {"success": "14185225", "abnormal": "ffffffff", "bad": "00686566",
          "read-only": "77777777", "init": "00000000", "unknown": "12345678"}


def contents(path):
    """The size, and every 4096 bytes that are not all zero: tables are large and sparse."""
    found, at = {}, 0
    with open(path, "rb") as file:
        size = os.fstat(file.fileno()).st_size
        while at < size:
            try:
                at = os.lseek(file.fileno(), at, os.SEEK_DATA) // 4096 * 4096
            except OSError:  # a hole up to the end
                break
            part = os.pread(file.fileno(), 4096, at)
            if any(part):
                found[at] = part
            at += 4096
    return size, found


class keep_evidence(scratch_test):
    def keep(self, **more):
        """Runs it. Returns its output, whose status is 0 whatever happens."""
        got = run([UNITS / "keep-evidence", self.place / "kept"], TARN_PLATFORM_VALUE=str(VALUE),
                  TARN_PLATFORM_CONF=str(self.place / "lab/platform.conf"), **more)
        self.assertEqual(got.returncode, 0, got.stdout)
        return got.stdout

    def kept(self):
        place = self.place / "kept"
        return sorted(each.name for each in place.iterdir()) if place.is_dir() else []

    def files_of(self, name):
        top = self.place / "kept" / name
        return {str(each.relative_to(top)): each for each in top.rglob("*") if each.is_file()}

    def set_status(self, name, serial=0):
        """Gives the journal that status, and a number that makes it another journal."""
        with open(self.place / "lab/journal/EP_JNL", "r+b") as journal:
            journal.seek(4100)
            journal.write(bytes.fromhex(STATUS[name]))
            journal.seek(4164)
            journal.write(serial.to_bytes(4, "little"))

    def test_after_a_crash_it_copies_journal_and_metadata_and_no_data(self):
        lab = self.sample("--crash")
        (lab / "volume2/@EP_trash/7").write_text("a map", encoding="utf-8")
        self.keep()
        [name] = self.kept()
        self.assertRegex(name, r"^\d{8}T\d{6}Z-abnormal$")
        copies = self.files_of(name)
        self.assertEqual(copies.pop("journal.copy").read_bytes(), (lab / "journal/EP_JNL").read_bytes())
        expected = {str(path).lstrip("/"): path for path in lab.rglob("volume*/**/*")
                    if path.is_file() and not path.name.startswith("EP_DAT_")}
        kinds = {path.name.rstrip("0123456789") for path in expected.values()}
        self.assertLessEqual({"EP_TBL", "EP_FRI", "LUN_0_Extent_", "FAMILY_"}, kinds)
        self.assertEqual(sorted(copies), sorted(expected))
        for path, original in expected.items():
            self.assertEqual(contents(copies[path]), contents(original), path)
            self.assertLessEqual(copies[path].stat().st_blocks, original.stat().st_blocks, path)

    def test_nothing_that_is_kept_is_called_like_a_journal_or_open_to_others(self):
        lab = self.sample("--crash")
        (lab / "volume1/@EP_trash/EP_JNL").write_text("x", encoding="utf-8")
        self.keep()
        [name] = self.kept()
        self.assertEqual([path for path in self.files_of(name) if path.endswith("EP_JNL")], [])
        self.assertEqual(stat.S_IMODE((self.place / "kept" / name).stat().st_mode), 0o700)

    def test_after_a_clean_shutdown_it_copies_the_journal_only(self):
        self.sample()
        self.keep()
        [name] = self.kept()
        self.assertTrue(name.endswith("-success"))
        self.assertEqual(list(self.files_of(name)), ["journal.copy"])

    def test_every_status_has_its_name(self):
        self.sample()
        for status in STATUS:
            self.set_status(status)
            self.assertRegex(self.keep(), rf"Z-{status}\n$")
        self.assertEqual(sorted(re.sub("^.*Z-", "", name) for name in self.kept()), sorted(STATUS))

    def test_the_newest_eight_stay_and_clean_ones_displace_no_others(self):
        self.sample()
        for number in range(10):
            for status in ("abnormal", "success"):
                name = f"202501{number + 1:02}T000000Z-{status}"
                self.write(f"kept/{name}/journal.copy", "old")
        self.write("kept/mine/journal.copy", "of the administrator")
        self.set_status("bad")
        self.keep()
        kept = self.kept()
        days = {status: [name[6:8] for name in kept if name.endswith(status)]
                for status in ("abnormal", "success")}
        self.assertEqual(days["abnormal"], ["04", "05", "06", "07", "08", "09", "10"])
        self.assertEqual(days["success"], ["03", "04", "05", "06", "07", "08", "09", "10"])
        self.assertEqual(len([name for name in kept if name.endswith("Z-bad")]), 1)
        self.assertIn("mine", kept)

    def test_the_same_journal_is_kept_once(self):
        self.sample("--crash")
        self.keep()
        before = self.kept()
        self.assertEqual(self.keep(), "")
        self.assertEqual(self.kept(), before)
        self.set_status("bad")
        self.keep()
        self.assertEqual(len(self.kept()), 2)

    def test_without_a_journal_nothing_is_kept(self):
        (self.sample() / "journal/EP_JNL").unlink()
        self.assertEqual(self.keep(), "")
        self.assertEqual(self.kept(), [])

    def test_without_room_it_says_so_and_does_not_fill_the_disk(self):
        self.sample("--crash")
        self.write("bin/df", '#!/bin/sh\necho "    Avail"\necho "   $ROOM"\n').chmod(0o755)
        path = f"{self.place}/bin:{os.environ['PATH']}"
        self.assertIn("no room in", self.keep(PATH=path, ROOM="3"))
        self.assertEqual(self.kept(), [])
        journal = (self.place / "lab/journal/EP_JNL").stat().st_blocks // 2
        self.assertIn("only the journal is kept", self.keep(PATH=path, ROOM=str(2 * journal + 10)))
        [name] = self.kept()
        self.assertEqual(list(self.files_of(name)), ["journal.copy"])

    def test_a_failure_is_reported_and_is_no_failure_of_the_unit(self):
        self.sample("--crash")
        (self.place / "kept").write_text("not a directory", encoding="utf-8")
        self.assertIn("tarn keep-evidence: not everything could be kept", self.keep())
        self.assertTrue((self.place / "kept").is_file())

    def test_half_a_copy_of_an_earlier_run_is_replaced(self):
        self.sample()
        self.write("kept/new/journal.copy", "half")
        self.keep()
        [name] = self.kept()
        self.assertTrue(name.endswith("-success"))

    def write_inventory(self):
        return run([UNITS / "write-inventory", self.place / "inventory"], TARNCTL=PROGRAMS["tarnctl"],
                   TARN_PLATFORM_VALUE=str(VALUE),
                   TARN_PLATFORM_CONF=str(self.place / "lab/platform.conf"))

    def test_an_inventory_is_written_after_a_clean_shutdown(self):
        self.sample()
        self.assertEqual(self.write_inventory().returncode, 0)
        self.assertIn(b"tarn", (self.place / "inventory").read_bytes())

    def test_after_a_crash_the_old_inventory_stays(self):
        self.sample()
        self.write_inventory()
        before = (self.place / "inventory").read_bytes()
        self.set_status("abnormal")
        got = self.write_inventory()
        self.assertEqual((got.returncode, got.stdout.split(": ")[1]),
                         (0, "no clean shutdown, journal abnormal"))
        self.assertEqual((self.place / "inventory").read_bytes(), before)
        self.assertFalse((self.place / "inventory.1").exists())


if __name__ == "__main__":
    main()
