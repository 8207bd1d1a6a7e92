"""The lines of tarn-lab in the documents."""
import re

from installed import SOURCES, main
from server import BUSY, CRASH, damage, on_a_server, row

REPLAY = "tarn --startup-replay >/dev/null; "
RAN = "[ -s $LAB/lab.run ] || exit 1; "
MADE = ("/lab: 2 volumes, ", " complete transactions")
DAMAGED = ("volume1/@EP/EP_TBL: byte ", " -> ")
VERSION = re.search(r"^project\(tarn VERSION (\S+)", (SOURCES / "CMakeLists.txt").read_text(), re.M)[1]
FROM_MODEL = "rm -r $V $W $J; "  # image and maps read only lab.conf and lab.run

ROWS = [
    row("tarn-lab make DIR --seed 11 --crash", MADE, make="", then="[ -e $LAB/lab.conf ]"),
    row("tarn-lab make /srv/lab --seed 11 --crash", MADE, make="", then="! tarn-lab verify $LAB"),
    row("tarn-lab make /srv/lab2 --seed 3", MADE + ("shut down cleanly.",), make="",
        then="tarn-lab verify $LAB"),
    row("tarn-lab expect DIR", ("recovers",), make=CRASH),
    row("tarn-lab expect DIR", ("refuses:",), make=CRASH.replace("11", "23")),
    row("tarn-lab verify DIR", (": every ",), make=CRASH, first=REPLAY),
    row("tarn-lab verify DIR", ("expected",), 1, make=CRASH),  # the first difference
    row("tarn-lab verify /srv/lab", (": every ",), make=CRASH, first=REPLAY),
    row("tarn-lab verify DIR --refused", ("every file is unchanged",), make=CRASH.replace("11", "23"),
        first="! tarn --startup-replay"),
    row("tarn-lab verify DIR --rebuilt", ("index and table agree with the maps",),
        first=damage("table-noise") + "tarn --onekeyrepair --volpath $V"),
    row("tarn-lab verify DIR --rebuilt", ("expected used with 1 references, found used with 2",), 1,
        first=damage("reference-count")),
    row("tarn-lab damage DIR list-loop --seed 3", DAMAGED, then="! tarn-lab verify $LAB"),
    row("tarn-lab damage /srv/lab2 alias --seed 2",
        ("LUN_1_Extent_0: byte 1064048, lea 1904: 8000000000000ce5 -> 800000000000182f",)),
    row("tarn-lab damage DIR KIND [--volume N] [--seed S]", ("volume2/@EP/EP_TBL: byte ", "references: "),
        words={"KIND": "reference-count", "[--volume N] [--seed S]": "--volume 2 --seed 1"}),
    row("tarn-lab run DIR --seconds 5", (), words={"5": "1"}, then=RAN + REPLAY + "tarn-lab verify $LAB"),
    row("tarn-lab run DIR [--seconds N] [--seed S] [--rate N]", (),
        words={"[--seconds N] [--seed S] [--rate N]": "--seconds 1 --seed 2 --rate 200"},
        then=RAN + "tarn --search jnl -m | grep 'Abnormal Shutdown' && " + REPLAY +
        "tarn-lab verify $LAB"),
    row("tarn-lab age DIR --seed 7", (), then=RAN + REPLAY + "tarn-lab verify $LAB"),
    row("tarn-lab age DIR [--seed S] [--transactions N] [--clean]", (),
        words={"[--seed S] [--transactions N] [--clean]": "--seed 1 --transactions 300 --clean"},
        then=RAN + "tarn-lab verify $LAB"),
    row("tarn-lab image DIR volume1:LUN_0 FILE", (), words={"FILE": "$STATE/image"},
        make=BUSY + " --extents 100", first="tarnctl export LUN_0 --to $RESCUE/it; " + FROM_MODEL,
        then="cmp $STATE/image $RESCUE/it"),
    row("tarn-lab image DIR LUN FILE", (), words={"LUN": "volume1/@EP/EP_BUF", "FILE": "$STATE/image"},
        first=FROM_MODEL, then="[ $(stat -c %s $STATE/image) = 3145728000 ]"),  # 3000 of 1 MiB
    row("tarn-lab maps DIR", ("volume1 volume1/@iSCSITrg/LUN_0/LUN_0_Extent_0 lun ", " buffer ", " copy ",
                              " snapshot "), first=FROM_MODEL),
    row("tarn-lab --help", ("tarn-lab make", "Kinds of damage:", "--crash")),
    row("tarn-lab --version", (f"tarn-lab {VERSION}",)),
]


class lab(on_a_server):
    def test_lines_do_what_the_pages_say(self):
        self.play(ROWS)


if __name__ == "__main__":
    main()
