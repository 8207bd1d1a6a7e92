"""The units: systemd can read them, the order of steps, and nothing in them that hides a volume."""
import os
import re
import shlex
import shutil
import unittest

from installed import SOURCES, UNITS, main, needs, run, scratch_test

NAMES = ["tarn-check-failed.service", "tarn-check.service", "tarn-check.timer",
         "tarn-inventory.service", "tarn-startup-replay.service"]
STEPS = ["tarn-check.service", "tarn-inventory.service", "tarn-startup-replay.service"]
# Each of these gives a unit its own mounts, in which a volume can look missing or read-only.
HIDES_VOLUMES = re.compile(
    r"^(Protect(System|Home|Kernel\w+|ControlGroups|Proc|Hostname)|ProcSubset|Private(Tmp|Devices|Mounts|Users)|"
    r"(Read(Only|Write)|Inaccessible|Exec|NoExec|BindReadOnly|Bind)Paths|TemporaryFileSystem|RootDirectory|"
    r"RootImage|DynamicUser|MountAPIVFS|User|StateDirectory)=", re.M)


def settings(name, key):
    return re.findall(rf"^{key}=(.*)$", (UNITS / name).read_text(encoding="utf-8"), re.M)


class units(scratch_test):
    def test_every_unit_is_known_here(self):
        found = sorted(each.name for each in UNITS.iterdir() if each.suffix in (".service", ".timer"))
        self.assertEqual(found, NAMES)

    @needs("systemd-analyze")
    def test_systemd_reads_them_without_a_complaint(self):
        for name in NAMES:  # with programs that are there, since nothing is installed here
            text = (UNITS / name).read_text(encoding="utf-8")
            text = re.sub(r"(?<==)(-?)/usr/(sbin|libexec)/\S+", r"\1/bin/true", text)
            self.write(name, re.sub(r"^Documentation=.*\n", "", text, flags=re.M))
        self.write("iscsitrg.service", "[Service]\nExecStart=/bin/true\n")
        drop_in = self.place / "iscsitrg.service.d"
        shutil.copytree(UNITS / "examples/iscsitrg.service.d", drop_in)
        got = run(["systemd-analyze", "--man=no", "verify",
                   *[self.place / name for name in [*NAMES, "iscsitrg.service"]]],
                  SYSTEMD_UNIT_PATH=f"{self.place}:")
        self.assertEqual((got.returncode, got.stdout), (0, ""))

    def test_nothing_hides_a_volume_or_makes_it_look_read_only(self):
        for name in NAMES:
            found = HIDES_VOLUMES.search((UNITS / name).read_text(encoding="utf-8"))
            self.assertIsNone(found, f"{name}: {found}")

    def test_evidence_is_kept_and_the_guard_asked_before_the_replay(self):
        unit = "tarn-startup-replay.service"
        self.assertEqual(settings(unit, "ExecStartPre"),
                         ["-/usr/libexec/tarn/keep-evidence",
                          "/usr/sbin/tarnctl guard --inventory /var/lib/tarn/inventory"])
        self.assertEqual(settings(unit, "ExecStart"), ["/usr/sbin/tarn --startup-replay"])

    def test_the_replay_runs_again_at_each_start(self):
        unit = "tarn-startup-replay.service"
        self.assertEqual(settings(unit, "Type"), ["oneshot"])
        self.assertEqual(settings(unit, "RemainAfterExit"), [])
        self.assertEqual(settings("examples/iscsitrg.service.d/tarn.conf", "Requires"), [unit])
        self.assertEqual(settings("examples/iscsitrg.service.d/tarn.conf", "After"), [unit])

    def test_only_a_start_of_the_service_starts_the_replay(self):
        self.assertEqual(settings("tarn-startup-replay.service", "RefuseManualStart"), ["yes"])

    def test_a_failed_check_writes_one_line_even_if_it_did_not_start(self):
        self.write("logger", "#!/bin/sh\nprintf '%s\\n' \"$@\"\n").chmod(0o755)
        line, = settings("tarn-check-failed.service", "ExecStart")
        words = shlex.split(line.replace("$$", "$"))  # systemd makes one $ of two
        path = f"{self.place}:{os.environ['PATH']}"
        for status, shown in (("5", "5"), ("", "none (is every volume mounted?)")):
            got = run(words, PATH=path, MONITOR_EXIT_STATUS=status)
            self.assertEqual(got.stdout, "-t\ntarn-check\n-p\ndaemon.err\nThe weekly check of the storage "
                                         f"metadata failed, exit status {shown}. Run: tarnctl check\n")

    def test_lost_space_does_not_fail_the_weekly_check(self):
        self.assertEqual(settings("tarn-check.service", "SuccessExitStatus"), ["3"])
        self.assertEqual(settings("tarn-check.service", "OnFailure"), ["tarn-check-failed.service"])

    def test_the_hardening_is_the_same_everywhere(self):
        parts = {(UNITS / name).read_text(encoding="utf-8").split("\n# Hardening")[1].split("\n[")[0].strip()
                 for name in STEPS}
        self.assertEqual(len(parts), 1)

    @needs("shellcheck")
    def test_the_scripts_are_clean(self):
        scripts = [UNITS / name for name in
                   ("platform-value", "tarn-generator", "keep-evidence", "write-inventory")]
        got = run(["shellcheck", "-s", "sh", *scripts])
        self.assertEqual((got.returncode, got.stdout), (0, ""))

    def test_the_page_shows_the_drop_in_as_it_is(self):
        page = (SOURCES / "docs/install.md").read_text(encoding="utf-8")
        drop_in = (UNITS / "examples/iscsitrg.service.d/tarn.conf").read_text(encoding="utf-8")
        part = drop_in[drop_in.index("[Unit]"):]
        self.assertIn("".join(f"    {line}\n" for line in part.splitlines()), page)


if __name__ == "__main__":
    main()
