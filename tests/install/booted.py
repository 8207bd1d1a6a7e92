"""The installed units under systemd: booted.py ROOT boots the directory ROOT, a Debian with systemd and
the packages tarn and tarn-lab, in a container. scripts/package-test makes one and runs this. Needs root
and systemd-nspawn. It changes ROOT, and leaves it.

Each test makes a server of its own: a sample of tarn-lab in /srv/lab, its volumes mounted at /volume1
and /volume2, its journal in /var/lib/tarn, and a storage service that only sleeps."""
import re
import subprocess
import sys
import time
import unittest
from pathlib import Path

DOCS = Path(__file__).resolve().parents[2] / "docs"
UNITS_WITH_STEPS = ["tarn-startup-replay", "tarn-inventory", "tarn-check"]
JOURNAL = "/var/lib/tarn/EP_JNL"
INVENTORY = "/var/lib/tarn/inventory"
FSTAB = "/srv/lab/{name} /{name} none bind{more} 0 0\n"
BOTH = FSTAB.format(name="volume1", more="") + FSTAB.format(name="volume2", more="")
NO_SUCH_DISK = BOTH.replace("/volume2 none bind", "/volume2 nosuchfs defaults")
SERVICE = "[Service]\nExecStart={}\n[Install]\nWantedBy=multi-user.target\n"
# Its journal is open while it runs. It takes a second to stop, and only then its journal is closed.
STOPS_SLOWLY = ("/bin/sh -c 'trap \"sleep 1; tarn --set-status success; exit 0\" TERM; "
                "tarn --set-status abnormal; touch /srv/lab/runs; while :; do sleep 0.1; done'")
RUNS = "until [ -e /srv/lab/runs ]; do sleep 0.1; done; rm /srv/lab/runs"
PREPARE = """
systemctl stop iscsitrg tarn-inventory
umount -q /volume1 /volume2
rm -rf /srv/lab /var/lib/tarn /run/systemd/system/*
mkdir -p /volume1 /volume2 /srv /etc/systemd/system/iscsitrg.service.d
install -d -m 700 /var/lib/tarn
cp /usr/share/doc/tarn/examples/platform.conf /etc/tarn/
cp /usr/share/doc/tarn/examples/iscsitrg.service.d/tarn.conf /etc/systemd/system/iscsitrg.service.d/
tarn-lab make /srv/lab --seed 3 {options} >/srv/made || exit 1
mv /srv/lab/journal/EP_JNL /var/lib/tarn/ && cp /var/lib/tarn/EP_JNL /srv/journal || exit 1
rmdir /srv/lab/journal && ln -s /var/lib/tarn /srv/lab/journal
systemctl reset-failed
"""


class machine:
    """A booted container. Its commands run outside of every unit, as from a root shell."""

    def __init__(self, root):
        self.root = root
        self.nspawn = self.first = None

    def boot(self):
        words = ["systemd-nspawn", "--quiet", "--boot", "--private-network", "--capability=all",
                 "--console=pipe", f"--directory={self.root}"]
        if not Path("/run/systemd/system").is_dir():  # nobody here registers containers
            words += ["--register=no", "--keep-unit"]
        self.nspawn = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL)
        children = Path(f"/proc/{self.nspawn.pid}/task/{self.nspawn.pid}/children")
        for _ in range(300):
            self.first = next(iter(children.read_text(encoding="ascii").split()), None)
            if self.first is not None:
                state = self.run("systemctl is-system-running --wait").stdout.strip()
                if state in ("running", "degraded"):
                    return
            time.sleep(0.2)
        raise RuntimeError("the container does not boot")

    def run(self, command):
        """Standard output and error are text, together."""
        return subprocess.run(
            ["nsenter", "-t", self.first, "-a", "--", "env", "-i", "LC_ALL=C", "HOME=/root",
             "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "sh", "-c", command],
            text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
            check=False, timeout=120)

    def power_off(self):
        self.nspawn.terminate()
        try:
            self.nspawn.wait(60)
        except subprocess.TimeoutExpired:
            self.nspawn.kill()
            self.nspawn.wait()


class booted(unittest.TestCase):
    box = None

    def prepare(self, options="", fstab=BOTH, conf=None, service="/bin/sleep infinity"):
        """conf None: the example, which names both volumes; "": no configuration."""
        done = self.box.run(PREPARE.format(options=options))
        self.assertEqual(done.returncode, 0, done.stdout)
        self.since = f"@{time.time():.6f}"
        (self.box.root / "etc/fstab").write_text(fstab, encoding="utf-8")
        self.write("/etc/systemd/system/iscsitrg.service", SERVICE.format(service))
        if conf == "":
            self.does("rm /etc/tarn/platform.conf")
        elif conf is not None:
            self.write("/etc/tarn/platform.conf", conf)
        self.does("systemctl daemon-reload")

    def write(self, path, text):
        inside = self.box.root / path.lstrip("/")
        inside.parent.mkdir(parents=True, exist_ok=True)
        inside.write_text(text, encoding="utf-8")

    def drop_in(self, unit, text):
        self.does(f"mkdir -p /run/systemd/system/{unit}.service.d")
        self.does(f"cat >/run/systemd/system/{unit}.service.d/test.conf <<'END'\n{text}\nEND")
        self.does("systemctl daemon-reload")

    def does(self, command):
        got = self.box.run(command)
        if got.returncode != 0:
            self.fail(f"{command}\n{got.stdout}\nThe log:\n{self.log()}")
        return got.stdout

    def fails(self, command, status=None):
        got = self.box.run(command)
        self.assertNotEqual(got.returncode, 0, command)
        if status is not None:
            self.assertEqual(got.returncode, status, got.stdout)
        return got.stdout

    def log(self, words=""):
        """The log since the server was made: of everything, or what `words` of journalctl choose."""
        return self.box.run("journalctl --sync; journalctl -q -o cat --no-pager "
                            f"--since={self.since} {words}").stdout

    def reasons(self):
        return self.log("-t tarn -t tarnctl")  # by unit some are lost: docs/install.md

    def replays(self):
        return self.log("-u tarn-startup-replay").count("Finished tarn-startup-replay.service")

    def starts(self):
        self.does("systemctl start iscsitrg")
        self.does("systemctl is-active iscsitrg")

    def stays_down(self):
        self.fails("systemctl start iscsitrg", 1)
        self.assertEqual(self.box.run("systemctl is-active iscsitrg").stdout, "inactive\n")

    def recovered(self, how=""):
        self.does(f"tarn-lab verify /srv/lab {how}")

    def journal_is_untouched(self):
        self.does(f"cmp {JOURNAL} /srv/journal")

    def kept(self):
        return [each.split("-")[-1] for each in self.does("ls /var/lib/tarn/kept").split()]


class start(booted):
    def test_after_a_crash_the_service_starts_with_recovered_volumes(self):
        self.prepare("--crash")
        self.starts()
        self.recovered()
        self.assertEqual(self.kept(), ["abnormal"])
        self.does("cmp /srv/journal /var/lib/tarn/kept/*/journal.copy")
        for volume in ("volume1", "volume2"):
            self.does(f"test -e /var/lib/tarn/kept/*/{volume}/@EP/EP_TBL")
        self.assertNotRegex(self.log(), "not permitted|[Pp]ermission denied|Unknown key")

    def test_each_start_replays_again_and_each_clean_stop_writes_the_inventory(self):
        self.prepare(service=STOPS_SLOWLY)
        self.starts()
        self.assertEqual(self.replays(), 1)
        self.fails(f"test -e {INVENTORY}")
        self.does(f"{RUNS}; systemctl restart iscsitrg")
        self.assertEqual(self.replays(), 2)
        self.does(f"test -e {INVENTORY}")
        self.does(f"{RUNS}; systemctl stop iscsitrg tarn-inventory")
        self.does(f"test -e {INVENTORY}.1 && tarnctl inventory --compare {INVENTORY}")
        self.starts()
        self.assertEqual(self.replays(), 3)

    def test_a_service_that_was_killed_is_replayed_at_its_next_start_and_writes_no_inventory(self):
        once = "[ -e /srv/lab/once ] || { touch /srv/lab/once; exec tarn-lab run /srv/lab --seconds 600; }"
        self.prepare(service=f"/bin/sh -c '{once}; exec sleep infinity'")
        self.starts()
        self.does("until [ $(/usr/libexec/tarn/platform-value status) = abnormal ]; do sleep 0.1; done")
        time.sleep(1)  # some transactions
        self.does("systemctl kill -s KILL iscsitrg; while systemctl -q is-active iscsitrg; do sleep 0.1; done")
        self.does("systemctl stop tarn-inventory")
        self.fails(f"test -e {INVENTORY}")
        self.assertIn("no clean shutdown, journal abnormal", self.log("-t write-inventory"))
        self.starts()
        self.assertEqual(self.replays(), 2)
        self.recovered()

    def test_nobody_can_replay_under_a_service_that_runs(self):
        self.prepare()
        self.starts()
        self.does("tarn --set-status abnormal >/dev/null; cp /var/lib/tarn/EP_JNL /srv/journal")
        self.assertIn("by dependency only", self.fails("systemctl start tarn-startup-replay"))
        self.journal_is_untouched()

    def test_a_boot_mounts_the_volumes_and_replays_and_a_shutdown_writes_the_inventory(self):
        noauto = "".join(FSTAB.format(name=name, more=",noauto") for name in ("volume1", "volume2"))
        self.prepare("--crash", fstab=noauto)  # only the generator asks for these mounts
        self.does("systemctl enable iscsitrg")
        self.addCleanup(self.box.run, "systemctl disable iscsitrg")
        self.box.power_off()
        self.box.boot()
        self.does("systemctl is-active iscsitrg")
        self.recovered()
        self.fails(f"test -e {INVENTORY}")
        self.box.power_off()
        self.box.boot()
        self.does(f"tarnctl inventory --compare {INVENTORY}")


class volumes(booted):
    def test_a_volume_that_nobody_named_is_there_and_writable(self):
        self.prepare("--crash", conf="", fstab=FSTAB.format(name="volume1", more=""))
        self.does("mount --bind /srv/lab/volume2 /volume2")
        self.starts()
        self.recovered()

    def test_a_mounted_volume_that_the_configuration_forgets_stops_the_replay(self):
        self.prepare("--crash", conf="volumes = /volume1\n")
        self.does("mount /volume2")
        self.stays_down()
        self.assertIn("tarnctl: stopped by S07", self.reasons())
        self.journal_is_untouched()
        self.write("/etc/tarn/platform.conf", "volumes = /volume1 /volume2\n")
        self.starts()
        self.recovered()

    def test_a_volume_that_cannot_be_mounted_stops_the_replay_before_it_begins(self):
        self.prepare("--crash", fstab=NO_SUCH_DISK)
        self.stays_down()
        self.assertIn("Dependency failed for tarn-startup-replay.service",
                      self.log("-u tarn-startup-replay"))
        self.assertIn("volume2.mount", self.does("systemctl --failed"))
        self.journal_is_untouched()
        self.fails("test -e /var/lib/tarn/kept")
        self.does("mount --bind /srv/lab/volume2 /volume2")
        self.starts()
        self.recovered()

    def test_an_empty_mount_point_stops_the_replay(self):
        self.prepare("--crash", fstab=FSTAB.format(name="volume1", more=""))
        self.stays_down()
        self.assertIn("tarnctl: stopped by S01: /volume2: ", self.reasons())
        self.journal_is_untouched()
        self.does("mount --bind /srv/lab/volume2 /volume2")
        self.starts()
        self.recovered()


class sandbox(booted):
    LOOK = ("[Service]\nExecStartPre=/bin/sh -c 'exec >/srv/seen-by-%N; readlink /proc/self/ns/mnt; "
            "grep -E \"^(CapBnd|NoNewPrivs|Seccomp):\" /proc/self/status; "
            "for V in /volume1 /volume2 /var/lib/tarn; do "
            "touch $$V/new && rm $$V/new && echo $$V writable; done; "
            "mount -t tmpfs none /mnt 2>/dev/null || echo mount refused'")

    def test_every_volume_is_writable_in_it_and_the_mounts_are_the_machines(self):
        self.prepare("--crash")
        mounts = self.does("readlink /proc/1/ns/mnt").strip()
        for unit in UNITS_WITH_STEPS:
            self.drop_in(unit, self.LOOK)
        self.starts()
        self.does("systemctl start tarn-check")
        for unit in UNITS_WITH_STEPS:
            seen = self.does(f"cat /srv/seen-by-{unit}").replace("\t", " ").splitlines()
            for line in (mounts, "/volume1 writable", "/volume2 writable", "/var/lib/tarn writable",
                         "NoNewPrivs: 1", "Seccomp: 2", "mount refused",
                         "CapBnd: 000000000000001f"):  # the five that the units name
                self.assertIn(line, seen)

    def test_mounts_of_its_own_would_make_a_forgotten_volume_read_only(self):
        # So this machine does what a unit says: the test above would notice a volume that is hidden.
        self.prepare("--crash")
        self.drop_in("tarn-startup-replay",
                     "[Service]\nProtectSystem=strict\nReadWritePaths=/volume1 /var/lib/tarn")
        self.stays_down()
        self.assertRegex(self.reasons(), "stopped by S01: /volume2: .*read-only")


class way_out(booted):
    """What the pages say, as they say it."""

    def page(self, name):
        return (DOCS / name).read_text(encoding="utf-8")

    def move_the_journal_aside(self):
        recipe = re.search(r"### Recipe aside\n.*?```sh\n(.*?)```", self.page("repair.md"), re.S)
        self.does(f"J={JOURNAL}\n{recipe[1]}")

    def test_a_bad_journal_keeps_the_service_down_until_it_is_set_abnormal_and_replayed(self):
        self.prepare("--crash")
        self.fails("tarn --set-status bad", 255)
        self.stays_down()
        self.assertIn("Journal In-Consistent", self.reasons())
        self.assertEqual(self.box.run("systemctl is-failed tarn-startup-replay").stdout, "failed\n")
        text = self.page("recovery.md")
        lines = re.search(r"\n       (tarn --set-status abnormal)\n       (tarn --startup-replay)\n", text)
        self.fails(lines[1], 255)  # it always ends so
        self.does(lines[2])
        self.starts()
        self.recovered()

    def test_a_journal_that_was_never_initialised_keeps_the_service_down(self):
        row = re.search(r"\| `jnlPath=\.\.\.` and status 255.*", self.page("install.md"))[0]
        for options, line in (("--crash", "tarn --set-status abnormal"), ("", "tarn --set-status success")):
            self.prepare(options)
            self.fails("tarn --set-status mistyped", 255)
            self.stays_down()
            self.assertEqual(self.log("-t tarn").splitlines()[-1], f"TARN_INFO: jnlPath={JOURNAL}")
            self.assertIn("status=255", self.log("-u tarn-startup-replay"))
            self.assertIn("Not Initialized", self.does("tarn --search jnl -m"))
            self.assertIn(f"`{line}`", row)
            self.fails(line, 255)
            self.starts()
            self.recovered()

    def test_a_one_key_repair_after_a_crash_ends_with_a_running_service(self):
        self.prepare()
        self.starts()
        self.fails("tarn --set-status abnormal", 255)
        self.assertIn("One Key Repair has successfully completed",
                      self.does("tarn --onekeyrepair --volpath /volume1"))
        self.assertEqual(self.replays(), 2)
        self.does("systemctl is-active iscsitrg")
        self.recovered("--rebuilt")

    def test_a_one_key_repair_with_a_bad_journal_leaves_the_service_down(self):
        self.prepare()
        self.starts()
        self.fails("tarn --set-status bad", 255)
        self.assertIn("Reconstruction procedure has failed",
                      self.fails("tarn --onekeyrepair --volpath /volume1", 255))
        self.assertEqual(self.box.run("systemctl is-active iscsitrg").stdout, "inactive\n")
        self.does("tarn --onekeyrepair --volpath /volume2")  # there is nothing to stop any more
        for volume in ("/volume1", "/volume2"):
            self.does(f"tarn --fullck --volpath {volume}")
        self.stays_down()
        self.move_the_journal_aside()
        self.starts()
        self.recovered("--rebuilt")


class weekly_check(booted):
    def lines(self):
        """What the failed check writes. Its unit runs after `systemctl start tarn-check` has ended."""
        finished = "Finished tarn-check-failed.service"
        self.does(f"until journalctl --since={self.since} -u tarn-check-failed | grep -q '{finished}'; "
                  "do sleep 0.1; done")
        return self.log("-t tarn-check")

    def test_lost_space_is_no_failure(self):
        self.prepare()
        self.does("mount -a && tarn-lab damage /srv/lab leak --seed 1 && systemctl start tarn-check")
        self.assertIn('"verdict":"counts"', self.does("cat /var/lib/tarn/health.json"))
        self.assertNotIn("OnFailure", self.log("-u tarn-check"))

    def test_damage_writes_one_line(self):
        self.prepare()
        self.does("mount -a && tarn-lab damage /srv/lab alias --seed 1")
        self.fails("systemctl start tarn-check")
        self.assertEqual(self.lines(), "The weekly check of the storage metadata failed, exit status 5. "
                                       "Run: tarnctl check\n")

    def test_a_volume_that_cannot_be_mounted_writes_one_line(self):
        self.prepare(fstab=NO_SUCH_DISK)
        self.fails("systemctl start tarn-check")
        self.assertEqual(self.lines(), "The weekly check of the storage metadata failed, exit status none "
                                       "(is every volume mounted?). Run: tarnctl check\n")


def main():
    root = Path(sys.argv.pop(1))
    if (root / "proc").is_mount():
        sys.exit(f"{root}/proc is mounted, and would hide the container's own")
    booted.box = machine(root)
    try:
        booted.box.boot()
        sys.exit(not unittest.main(exit=False, verbosity=2).result.wasSuccessful())
    finally:
        booted.box.power_off()


if __name__ == "__main__":
    main()
