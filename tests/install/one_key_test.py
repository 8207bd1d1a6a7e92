"""tarn --onekeyrepair, with the steps of the units as what the service's start runs: the locks are
free by then, the evidence is kept, and the service stays down if the replay refuses."""
import re
import shlex

from installed import PROGRAMS, UNITS, VALUE, main, run, scratch_test

# Stops and starts the service as systemctl does with the drop-in: a start runs the steps of
# tarn-startup-replay.service first, and fails if one of them does.
SYSTEMCTL = """#!/bin/sh
echo "$1 $2" >>{place}/calls
case $1 in
    stop) rm -f {place}/active ;;
    start) {steps} touch {place}/active ;;
esac
"""


class one_key(scratch_test):
    def setUp(self):
        super().setUp()
        self.lab = self.sample("--crash")
        self.conf = self.lab / "platform.conf"
        systemctl = self.write("systemctl", SYSTEMCTL.format(place=self.place, steps=self.steps()))
        systemctl.chmod(0o755)
        with open(self.conf, "a", encoding="utf-8") as conf:
            conf.write(f"service_pause = {systemctl} stop\nservice_resume = {systemctl} start\n")
        (self.place / "active").touch()

    def steps(self):
        """The steps of the unit, in its order, as words of a shell that end with && each."""
        unit = (UNITS / "tarn-startup-replay.service").read_text(encoding="utf-8")
        lines = re.findall(r"^ExecStart(?:Pre)?=(-?)(.*)$", unit, re.M)
        self.assertEqual(len(lines), 3)
        words = ""
        for optional, line in lines:
            line = line.replace("/usr/libexec/tarn/keep-evidence",
                                f"{UNITS}/keep-evidence {self.place}/kept")
            for name in ("tarnctl", "tarn"):
                line = re.sub(f"^/usr/sbin/{name} ", shlex.quote(PROGRAMS[name]) + " ", line)
            line = line.replace("/var/lib/tarn", str(self.place))
            words += f"{{ {line} || {'true' if optional else 'exit 1'}; }} >>{self.place}/output 2>&1 &&\n"
        return words

    def tarn(self, *words):
        return run([PROGRAMS["tarn"], *words], TARN_PLATFORM_CONF=str(self.conf),
                   TARN_PLATFORM_VALUE=str(VALUE))

    def repair(self):
        return self.tarn("--onekeyrepair", "--volpath", self.lab / "volume1")

    def kept(self):
        return sorted(each.name.split("-")[1] for each in (self.place / "kept").iterdir())

    def assert_paused_and_resumed(self):
        calls = (self.place / "calls").read_text(encoding="utf-8")
        self.assertEqual(calls, "stop iscsitrg\nstart iscsitrg\n")

    def test_after_a_crash_it_repairs_and_the_start_replays(self):
        got = self.repair()
        self.assertEqual(got.returncode, 0, got.stdout)
        self.assertIn("One Key Repair has successfully completed", got.stdout)
        self.assert_paused_and_resumed()
        self.assertEqual(self.kept(), ["abnormal"])
        self.assertTrue((self.place / "active").exists())
        self.assertFalse((self.lab / "journal/EP_JNL").exists())
        checked = run([PROGRAMS["tarn-lab"], "verify", self.lab, "--rebuilt"])
        self.assertEqual(checked.returncode, 0, checked.stdout)

    def test_with_a_bad_journal_the_volume_is_repaired_and_the_service_stays_down(self):
        self.tarn("--set-status", "bad")
        got = self.repair()
        self.assertEqual(got.returncode, 255)
        self.assertIn("Reconstruction procedure has failed", got.stdout)
        self.assert_paused_and_resumed()
        self.assertEqual(self.kept(), ["bad"])
        self.assertFalse((self.place / "active").exists())
        self.assertTrue((self.lab / "journal/EP_JNL").exists())
        self.assertTrue((self.lab / "volume1/@EP/EP_TBL.bkp").exists())  # the swap was finished

    def test_once_every_volume_is_repaired_and_the_journal_set_aside_the_service_starts(self):
        self.tarn("--set-status", "bad")
        for volume in ("volume1", "volume2"):
            self.tarn("--onekeyrepair", "--volpath", self.lab / volume)
            self.assertEqual(self.tarn("--fullck", "--volpath", self.lab / volume).returncode, 0)
        self.assertFalse((self.place / "active").exists())
        (self.lab / "journal/EP_JNL").rename(self.place / "journal.aside")
        started = run([self.place / "systemctl", "start", "iscsitrg"],
                      TARN_PLATFORM_CONF=str(self.conf), TARN_PLATFORM_VALUE=str(VALUE))
        self.assertEqual(started.returncode, 0, (self.place / "output").read_text(encoding="utf-8"))
        self.assertTrue((self.place / "active").exists())


if __name__ == "__main__":
    main()
