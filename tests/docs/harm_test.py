"""The lines of docs/situations.md that do harm: each does the harm that the page names."""
from installed import main
from server import CRASH, FILES, MAKE, REBUILT, TOO_LOW, damage, on_a_server, row, status

OTHERS = FILES.replace("$V", "$W")
BOTH_CHECKS = f"tarn --freeck {FILES} && tarn --fullck --volpath $V"
REPAIR = "tarn --onekeyrepair --volpath $V"
NOTHING_LOGGED = "[ ! -s $LOG ]"


def uuid(kind, file):
    """Shell: the uuid of a file, with a zero for each blank."""
    only = "'/_uuid/{s/.*\\(.\\{36\\}\\)$/\\1/;y/ /0/;p;q}'"
    return f"$(tarn --search {kind} -p {file} -m | sed -n {only})"


TABLE = uuid("tbl", "$V/@EP/EP_TBL")
INDEX = uuid("fri", "$V/@EP/EP_FRI")
NO_UUID = "00000000-0000-0000-0000-000000000000"

ROWS = [
    # The free lists are written into the LUNs' data. The checks find the index, and after a rebuild nothing.
    row("tarn --finalize --fripath ... --tblpath $V/@EP/EP_DAT_00000", words={"...": "$V/@EP/EP_FRI"},
        then=f"{NOTHING_LOGGED} && ! tarn --freeck {FILES} && {REPAIR} && {BOTH_CHECKS} && tarnctl check && "
        "! tarn-lab verify $LAB --rebuilt"),
    row("tarn --finalize", page="situations.md", make="tarn-lab make $LAB --seed 12",
        more="--fripath $V/@EP/EP_FRI --tblpath $W/@EP/EP_TBL",
        then=f"! tarn --freeck {FILES} && ! tarn --freeck {OTHERS} && "
        f"{REPAIR} && tarn --onekeyrepair --volpath $W && tarn-lab verify $LAB --rebuilt"),
    # A group count that is too low: a second run links every group.
    row("tarn --finalize", page="situations.md", more=REBUILT, first=TOO_LOW,
        then=f"! tarn --freeck {REBUILT} && tarn --finalize {REBUILT} && tarn --freeck {REBUILT}"),
    row("tarn --create map --path LIVEMAP ...", "", 255,
        words={"LIVEMAP": "$MAP", "...": "--oldpath $V/@iSCSITrg/LUN_2/LUN_2_Extent_0"},
        then="tarn --check-map --mappath $MAP | grep 'mapped_cnt mismatched: (0)' && "
        f"[ {uuid('map', '$MAP')} = {uuid('map', '$V/@iSCSITrg/LUN_2/LUN_2_Extent_0')} ] && "
        f"{REPAIR} && {BOTH_CHECKS}"),
    row("tarn --create tbl", "", 255, more="--path $V/@EP/EP_TBL --oldpath $W/@EP/EP_TBL",
        first=f"echo {TABLE} >$STATE/uuid",
        then=f"OTHER={uuid('tbl', '$W/@EP/EP_TBL')}; {REPAIR}; [ {TABLE} = $OTHER ] && "
        "tarn --change-uuid tbl --tblpath $V/@EP/EP_TBL --uuid $(tr -d - <$STATE/uuid) && "
        "tarn-lab verify $LAB --rebuilt"),
    row("tarn --create tbl", "", 255, words={"tbl": "fri"},
        more="--path $V/@EP/EP_FRI --oldpath $W/@EP/EP_FRI",
        then=f"{BOTH_CHECKS} && tarn --search fri -p $V/@EP/EP_FRI -m | grep 'free_count *2164663517184$'"),
    row("tarn --create fri --path ...", "", 255, words={"...": "$V/@EP/EP_FRI"},
        then=f"[ {INDEX} != {TABLE} ] && NEW={INDEX} && {REPAIR}; [ {INDEX} = $NEW ]"),
    row("tarn --startup-replay --help", ("unrecognized option", "--help"), make=CRASH,
        then="[ ! -e $J ] && tarn-lab verify $LAB"),
    row("tarn --onekeyrepair --volpath $V --dry-run", ("unrecognized option", "--dry-run"),
        then="[ -e $V/@EP/EP_TBL.bkp ]"),
    row("tarn --fullck ... --dryrun", ("unrecognized option", "--dryrun"), 255,
        words={"...": "--volpath $V"}, first=damage("reference-count"),
        logs=("refer-cnt mismatch",), then="[ -e $V/@EP_CHK ]"),
    # It replays a journal that is marked bad.
    row("tarn --onekeycheck", page="situations.md", make=CRASH, first=status("bad"),
        then=status("abnormal") + "tarn-lab verify $LAB"),
    row("tarn --set-status abnormall", "", 255,
        then=f"{NOTHING_LOGGED} && tarn --search jnl -m | grep 'Not Initialized' && "
        "{ tarn --startup-replay; [ $? = 255 ]; }"),
    row("tarn --set-status abnormal", "", 255, page="situations.md",
        make="tarn-lab make $LAB --seed 35", first=f"{REPAIR} && {BOTH_CHECKS}",
        then=f"! tarn --startup-replay && ! tarn --freeck {FILES}"),
    row("tarn --check-map --mappath LUNMAP --unmap --repair", words={"LUNMAP": "$MAP"},
        then="! tarn-lab verify $LAB && tarn --check-map --mappath $MAP --repair && "
        "tarn-lab verify $LAB"),
    row("tarn --check-map --mappath $V/@EP/EP_ROD --unmap --repair",
        then="! tarn-lab verify $LAB && tarn --check-map --mappath $V/@EP/EP_ROD --rod --repair && "
        "tarn-lab verify $LAB"),
    row("tarn --check-map --mappath $V/@EP/EP_TBL --repair",
        first="head -c 8192 $V/@EP/EP_TBL >$STATE/head",
        then="! head -c 8192 $V/@EP/EP_TBL | cmp - $STATE/head"),
    row("tarn --change-uuid tbl", page="situations.md", more="--tblpath $V/@EP/EP_TBL",
        then=f"[ {TABLE} = {NO_UUID} ] && {BOTH_CHECKS} && {REPAIR} && [ {TABLE} = {NO_UUID} ]"),
    row("tarn --import", more=f"{FILES} --mappath $MAP",
        then=f"! tarn --fullck --volpath $V && {REPAIR} && tarn-lab verify $LAB --rebuilt"),
    row("tarn --rpjnl tbl", more="--jnlpath $J --tblpath $V/@EP/EP_TBL", first=BOTH_CHECKS,
        make="tarn-lab make $LAB --seed 5 --crash",
        then=f"! tarn --freeck {FILES} && ! tarn --fullck --volpath $V"),
    # A rebuild without the map has freed its extents, which hold data.
    row("tarn --punch", ("Success to punch",), page="situations.md",
        make=MAKE + " --extents 200 --data 880", words={"tarn --punch": "echo YES | tarn --punch"},
        more="-p $V -a",
        first="tarnctl export LUN_1 --to $RESCUE/before && mv $MAP $STATE/map && " + REPAIR,
        then="mv $STATE/map $MAP && tarnctl export LUN_1 --to $RESCUE/after && "
        "! cmp $RESCUE/before $RESCUE/after"),
    row("tarn --vaaifix", more=FILES, first=damage("list-loop", 1),
        then=f"tarn --freeck {FILES} && tarnctl check >$STATE/found; grep F09 $STATE/found"),
    # A group that is not the head of the list stays.
    row("tarn --vaaifix", ("Fix FRI to fri_group_head",), more=FILES, first=damage("list-loop", 3),
        then=f"! tarn --freeck {FILES}"),
]


class harm(on_a_server):
    def test_lines_do_what_the_page_says(self):
        self.play(ROWS)


if __name__ == "__main__":
    main()
