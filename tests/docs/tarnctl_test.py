"""The lines of tarnctl in the documents, but for those of the health report and the export."""
from installed import main
from server import CRASH, MAKE, damage, on_a_server, row

WRITE = "tarnctl inventory --write $STATE/inventory || exit; "
SWAP = ("cd $V/@iSCSITrg; mv LUN_1/LUN_1_Extent_0 x; mv LUN_2/LUN_2_Extent_0 LUN_1/LUN_1_Extent_0; "
        "mv x LUN_2/LUN_2_Extent_0; ")
SWAPPED = ("URGENT S05 LUN_1:", "URGENT S05 LUN_2:", "Exit status 5.")
CLEAN = ("journal success", "Clean: nothing is wrong. Exit status 0.")
# The journal of another server, which a replay would take and delete.
FOREIGN = damage("journal-foreign")
CAUSE = "ERR: load_fri_file(31) Fail to load FRI (/volume1/@EP/EP_FRI)"

ROWS = [
    # -- check --
    row("tarnctl check", CLEAN),
    row("tarnctl check", ("URGENT R02", "COUNT R04", "Exit status 5."), 5, page="check.md",
        first=damage("alias", 2)),
    row("tarnctl check", ("DAMAGE M01 LUN_1, bytes 1981808640 to 2047868927",), 5, page="export.md",
        first=damage("map-node-bit", 2)),
    # "In no map" is space that nobody can free, or the data of a map that is missing.
    row("tarnctl check", ("COUNT R04", "Exit status 3."), 3, page="space.md", first=damage("leak")),
    row("tarnctl check --volume /volume1", ("/lab/volume1, journal", "Exit status 0."), lacks=("volume2",)),
    row("tarnctl check --quick", ("Clean:", "Exit status 0."), first=damage("alias", 2)),
    row("tarnctl check --json", ('{"record":"start"', '{"record":"summary"')),
    row("tarnctl --json", ('{"record":"start"', '{"record":"summary"'), more="check"),
    row("""tarnctl check --json | grep '"severity":"urgent"'""", ('"code":"R02"',),
        first=damage("alias", 2), lacks=("R04",)),
    row("tarnctl check --conf /srv/lab2/platform.conf", ("URGENT R02",), 5, first=damage("alias", 2)),
    row("tarnctl check --inventory /var/lib/tarn/inventory", SWAPPED, 5, first=WRITE + SWAP),
    row("tarnctl check --inventory /var/lib/tarn/inventory", CLEAN, first=WRITE),

    # -- help and explain --
    row("tarnctl --help", ("check", "explain", "space", "punch", "export", "inventory", "guard", "health")),
    row("tarnctl explain T01", ("T01", "damage", "a block of the table does not match its checksum")),
    row("tarnctl explain R01", ("R01", "urgent", "mapped to extents that the table calls free")),
    row("tarnctl explain CODE", ("S07", "Start-up replay would skip these records and delete the journal"),
        words={"CODE": "S07"}),
    row("tarnctl explain", ("R01", "J03", "S07")),
    row('tarnctl explain "LINE"', ("Fail to load FRI",), words={"LINE": CAUSE}),
    row("tarnctl explain 'the line'", ("Fail to load FRI",), words={"the line": CAUSE}),
    row("journalctl -t tarn | tarnctl explain -", ("Fail to load FRI",), first="printf '%s\\n' "
        "'ERR: __jnl_xcopy_type_replay(56) tarn_map_get_pool_uuid error occurs 7 times' "
        f"'{CAUSE}' >$LOG.journal"),

    # -- inventory and guard --
    row("tarnctl inventory", ("/state/inventory: 2 volumes, 12 maps.",), more="--write $STATE/inventory",
        then="[ -s $STATE/inventory ]"),
    row("tarnctl inventory --write /var/lib/tarn/inventory", ("/state/inventory: 2 volumes, 12 maps.",),
        first=WRITE, then="[ -s $STATE/inventory.1 ]"),
    row("tarnctl inventory --compare /var/lib/tarn/inventory", SWAPPED, 5, first=WRITE + SWAP),
    row("tarnctl inventory --compare /var/lib/tarn/inventory", ("Exit status 0.",), first=WRITE,
        lacks=("S05",)),
    # A map is gone; a data file is gone.
    row("tarnctl inventory --compare FILE", ("DAMAGE S04 LUN_1",), 4, words={"FILE": "$STATE/inventory"},
        first=WRITE + "rm $MAP"),
    row("tarnctl inventory --compare FILE", ("DAMAGE S06",), 4, words={"FILE": "$STATE/inventory"},
        first=WRITE + "rm $V/@EP/EP_DAT_00001"),
    row("tarnctl inventory --compare", SWAPPED, 5, more="$STATE/inventory", first=WRITE + SWAP),
    row("tarnctl guard", ("Start-up replay may begin.",), make=CRASH),
    row("tarnctl guard", ("tarnctl: stopped by S07:",), 32, page="situations.md", make=CRASH,
        first=FOREIGN),
    row("tarnctl guard", ("tarnctl: stopped by S01:",), 32, page="inventory.md", make=CRASH,
        first="mv $W $LAB/away"),
    row("tarnctl guard --inventory /var/lib/tarn/inventory", ("tarnctl: stopped by S05:",), 32,
        first=WRITE + SWAP),
    row("tarnctl guard --inventory /var/lib/tarn/inventory",
        ("there is no inventory yet", "Start-up replay may begin.")),
    row("tarnctl guard --accept S04", ("Start-up replay may begin.",), more="--inventory $STATE/inventory",
        first=WRITE + "rm $MAP; ! tarnctl guard --inventory $STATE/inventory"),

    # -- space and punch --
    row("tarnctl space", ("NAME SIZE MAPPED EXCLUSIVE SHARED", "LUN_0", "snapshot FAMILY_3",
                          "/lab/volume1, extents of 1 MiB", "/lab/volume2, extents of 1 MiB")),
    row("tarnctl space --if-deleted LUN_0 LUN_1", ("If LUN_0 and LUN_1 were deleted:", "would be freed")),
    row("tarnctl punch", ("To be given back:", "tarn --punch -p ", "Nothing was punched."),
        make=MAKE + " --data 20"),
    # It refuses while a map is missing.
    row("tarnctl punch", ("refused: it is not safe to punch holes now.",), 32, page="situations.md",
        first="tarn-lab damage $LAB map-truncated --seed 2"),
]


class tarnctl(on_a_server):
    def test_lines_do_what_the_pages_say(self):
        self.play(ROWS)


if __name__ == "__main__":
    main()
