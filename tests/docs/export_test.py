"""The lines of tarnctl export and of the plug-in for nbdkit."""
from installed import main
from server import BUSY, damage, on_a_server, row

IMAGE = "tarn-lab image $LAB volume1:LUN_7 $STATE/image; "  # the bytes that LUN_7 must have
SMALL = BUSY + " --extents 100"
SAVED = ("LUN_7 of ", "Exported.")
NBD = ("nbdkit", "nbdinfo", "nbdcopy", "qemu-img")

ROWS = [
    row("tarnctl export LUN_7 --to /srv/rescue/LUN_7.img", SAVED, make=SMALL, first=IMAGE,
        then="cmp $STATE/image $RESCUE/LUN_7.img && [ -s $RESCUE/LUN_7.img.map ]"),
    row("tarnctl export LUN_7 --to - >/dev/sdx", (), make=SMALL, first=IMAGE,
        then="cmp $STATE/image $RESCUE/sdx"),
    row("tarnctl export", SAVED, make=SMALL, more="LUN_7 --to $RESCUE/LUN_7.img"),
    row("tarnctl export LUN --to FILE", SAVED, make=SMALL, words={"LUN": "LUN_7", "FILE": "$RESCUE/it"},
        first=IMAGE, then="cmp $STATE/image $RESCUE/it"),
    # A damaged node: zeros stand in its place, and the mapfile says where.
    row("tarnctl export LUN_7 --to /srv/rescue/LUN_7.img --missing zero",
        ("Missing, in bytes of the LUN:", "Exported, with zeros where bytes are missing. Exit status 4."), 4,
        words={"LUN_7 ": "LUN_1 "}, first=damage("map-node-bit", 2),
        then="grep '0x76200000  0x03F00000  -' $RESCUE/LUN_7.img.map"),
    row("nbdkit tarn lun=LUN_7", ("104857600",), make=SMALL, more="-U - --run 'nbdinfo --size $uri'",
        needs=NBD),
    row("nbdkit -U - tarn lun=LUN_7 --run 'qemu-img convert -p -O qcow2 $uri /srv/rescue/LUN_7.qcow2'", (),
        make=SMALL, first=IMAGE, needs=NBD,
        then="qemu-img compare -f raw -F qcow2 $STATE/image $RESCUE/LUN_7.qcow2"),
    row("nbdkit -U - tarn lun=LUN_7 --run 'nbdcopy --progress $uri /dev/sdx'", (), make=SMALL, needs=NBD,
        first=IMAGE + ": >$RESCUE/sdx", then="cmp $STATE/image $RESCUE/sdx"),
    row("nbdkit -U - tarn lun=LUN_7 --run 'nbdcopy $uri /dev/sdx'", (), make=SMALL, needs=NBD,
        first=IMAGE + ": >$RESCUE/sdx", then="cmp $STATE/image $RESCUE/sdx"),
    row("nbdkit -U - tarn lun=LUN_7 --run 'qemu-img map -f raw $uri'", ("Offset Length Mapped to File",),
        make=SMALL, needs=NBD),
    # The device would need a module of the kernel.
    row("nbdkit tarn lun=LUN_7 && nbd-client localhost /dev/nbd0 && fdisk -l /dev/nbd0", ("104857600",),
        make=SMALL, needs=NBD, words={"&& nbd-client localhost /dev/nbd0 && fdisk -l /dev/nbd0":
                                      "-U - --run 'nbdinfo --size $uri'"}),
]


class export(on_a_server):
    def test_lines_do_what_the_pages_say(self):
        self.play(ROWS)


if __name__ == "__main__":
    main()
