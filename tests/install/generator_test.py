"""platform-value reads the configuration, and tarn-generator makes the mounts of it required."""
from installed import UNITS, VALUE, main, run, scratch_test

UNITS_WITH_MOUNTS = ["tarn-check.service.d", "tarn-inventory.service.d",
                     "tarn-startup-replay.service.d"]
FSTAB = r"""# /etc/fstab
/dev/sda1 / ext4 defaults 0 1
/dev/sdc1 /volume10 ext4 defaults 0 2
/dev/sdb1 /srv/volume2 ext4 defaults,nofail 0 2
/dev/sdd1 /mnt/my\040disks/volume2 ext4 defaults 0 2
/dev/sdi1 /mnt/back\134slash/volume7 ext4 defaults 0 2
/dev/sde1 /volume3 ext4 rw,noauto,user 0 2
#/dev/sdf1 /volume4 ext4 defaults 0 2
/dev/sdg1 /volume05 ext4 defaults 0 2
/dev/sdh1 /volume6/data ext4 defaults 0 2
"""


class configured(scratch_test):
    def value(self, key, conf=None, **more):
        path = self.write("conf", conf) if conf is not None else self.place / "none"
        got = run([VALUE, key], TARN_PLATFORM_CONF=str(path), **more)
        self.assertEqual(got.returncode, 0)
        return got.stdout


class platform_values(configured):
    def test_volumes_stand_one_a_line_in_their_order(self):
        conf = "# volumes = /volume9\n\n \t volumes\t= \t/volume2\t /volume1  /x=y \t\n"
        self.assertEqual(self.value("volumes", conf), "/volume2\n/volume1\n/x=y\n")

    def test_another_key_is_not_mistaken(self):
        conf = "volumes_old = /volume9\nmy volumes = /volume8\nvolumes=/volume1"
        self.assertEqual(self.value("volumes", conf), "/volume1\n")

    def test_an_empty_value_means_no_volume_even_if_mounts_are_there(self):
        fstab = self.write("fstab", FSTAB)
        self.assertEqual(self.value("boot-volumes", "volumes =\n", TARN_FSTAB=str(fstab)), "")

    def test_without_the_key_the_mount_table_has_them(self):
        mounts = self.write("mounts", "22 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
                                      "30 22 8:2 / /volume11 rw - ext4 /dev/sdb1 rw\n"
                                      "31 22 8:3 / /srv/volume2 rw - ext4 /dev/sdc1 rw\n"
                                      "32 22 8:4 / /my\\040volume3 rw - ext4 /dev/sdd1 rw\n")
        self.assertEqual(self.value("volumes", TARN_MOUNTINFO=str(mounts)),
                         "/srv/volume2\n/volume11\n")

    def test_before_the_mounts_fstab_has_them(self):
        fstab = self.write("fstab", FSTAB)
        self.assertEqual(self.value("boot-volumes", TARN_FSTAB=str(fstab)),
                         "/srv/volume2\n/mnt/my disks/volume2\n/mnt/back\\slash/volume7\n/volume10\n")

    def test_the_journal_root_may_hold_blanks_or_be_empty(self):
        self.assertEqual(self.value("journal_root", "journal_root = /mnt/my stick \r\n"),
                         "/mnt/my stick\n")
        self.assertEqual(self.value("journal_root", "journal_root =\n"), "\n")
        self.assertEqual(self.value("journal_root"), "/var/lib/tarn\n")
        self.assertEqual(self.value("journal_root", "volumes = /volume1\n"), "/var/lib/tarn\n")

    def test_anything_else_is_a_mistake(self):
        self.assertEqual(run([VALUE, "extent_shift"]).returncode, 2)
        self.assertEqual(run([VALUE]).returncode, 2)


class generator(configured):
    def generated(self, conf, fstab=""):
        path = self.write("conf", conf) if conf is not None else self.place / "none"
        out = self.place / "out"
        got = run([UNITS / "tarn-generator", out, out, out], TARN_PLATFORM_CONF=str(path),
                  TARN_PLATFORM_VALUE=str(VALUE), TARN_FSTAB=str(self.write("fstab", fstab)))
        self.assertEqual((got.returncode, got.stdout), (0, ""))
        drop_ins = sorted(each.name for each in out.iterdir()) if out.exists() else []
        if not drop_ins:
            return None
        self.assertEqual(drop_ins, UNITS_WITH_MOUNTS)
        texts = {(out / each / "50-volumes.conf").read_text(encoding="utf-8") for each in drop_ins}
        self.assertEqual(len(texts), 1)  # every unit needs the same mounts
        head, *lines = texts.pop().splitlines()[1:]
        self.assertEqual(head, "[Unit]")
        return lines

    def test_each_volume_and_the_journal_are_required(self):
        self.assertEqual(self.generated("journal_root = /mnt/my stick\nvolumes = /volume1 /srv/v2\n"),
                         ['RequiresMountsFor="/mnt/my stick"', 'RequiresMountsFor="/volume1"',
                          'RequiresMountsFor="/srv/v2"'])

    def test_without_a_configuration_fstab_says_what_the_volumes_will_be(self):
        self.assertEqual(self.generated(None, FSTAB),
                         ['RequiresMountsFor="/var/lib/tarn"', 'RequiresMountsFor="/srv/volume2"',
                          'RequiresMountsFor="/mnt/my disks/volume2"',
                          'RequiresMountsFor="/mnt/back\\\\slash/volume7"',
                          'RequiresMountsFor="/volume10"'])

    def test_specifiers_and_quotes_are_only_characters(self):
        self.assertEqual(self.generated('journal_root = /a%h\nvolumes = /b"c /d\\e\n'),
                         ['RequiresMountsFor="/a%%h"', 'RequiresMountsFor="/b\\"c"',
                          'RequiresMountsFor="/d\\\\e"'])

    def test_a_relative_path_is_left_to_tarn_to_refuse(self):
        self.assertEqual(self.generated("journal_root = x\nvolumes = volume1 /volume2\n"),
                         ['RequiresMountsFor="/volume2"'])

    def test_nothing_is_made_of_an_empty_configuration(self):
        self.assertIsNone(self.generated("journal_root =\nvolumes =\n"))


if __name__ == "__main__":
    main()
