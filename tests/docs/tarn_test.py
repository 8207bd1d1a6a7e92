"""The lines of tarn in the documents, but for those that do harm."""
from installed import main
from server import CRASH, DAMAGED, FILES, REBUILT, TOO_LOW, damage, on_a_server, row, status

# A map of three entries that tarn-format(5) shows byte by byte.
BY_HAND = "sed -n '/^xxd/,/^END/{s/\\\\\\\\-/-/g;p}' $TARN_SOURCES/man/tarn-format.5 | sh"

ROWS = [
    # -- start-up replay --
    row("tarn --startup-replay", ("IS CONSISTENT",), then="[ -e $J ]"),  # after a clean shutdown
    row("tarn --startup-replay", ("IS CONSISTENT",), page="recovery.md", make=CRASH,
        logs=("Start to replaying Journal", "Journal Consistent, Remove"),
        then="[ ! -e $J ] && tarn-lab verify $LAB"),
    row("tarn --startup-replay", ("jnlPath=",), page="recovery.md", first="rm $J"),
    row("tarn --startup-replay", ("jnlPath=",), 255, page="recovery.md", first=status("bad"),
        logs=("Journal In-Consistent",), then="[ -e $J ]"),
    row("tarn --startup-replay", (), 255, page="recovery.md", make=CRASH,
        first="mv $W $LAB/away", logs=("is not there",), then="[ -e $J ]"),
    row("tarn --startup-replay", (), 255, page="recovery.md", make=CRASH,
        first="mv $W $LAB/away && mkdir $W", logs=("is an empty directory: is it mounted?",),
        then="[ -e $J ]"),
    # A temporary failure: once it is gone, the same replay passes.
    row("tarn --startup-replay", page="recovery.md", make=CRASH,
        first=status("bad") + status("abnormal"),
        then="[ ! -e $J ] && tarn-lab verify $LAB"),
    # Never used, or a mistyped --set-status: this line and no other.
    row("tarn --startup-replay", ("jnlPath=",), 255, page="install.md", first=status("init"),
        lacks=("CONSISTENT",), then="[ ! -s $LOG ] && [ -e $J ]"),
    # J03: it takes the damaged block for the end of history, passes, and deletes the journal.
    row("tarn --startup-replay", (), page="check.md",
        first=damage("journal-block-in-window", 1),
        logs=("jnl checksum error @block",), then="[ ! -e $J ]"),
    row("TARN_PLATFORM_CONF=DIR/platform.conf tarn --startup-replay", (), make=CRASH,
        then="tarn-lab verify $LAB"),

    # -- the journal's status --
    row("tarn --set-status abnormal", "", 255,
        then="tarn --search jnl -m | grep 'jnl_shutdown_tag  *Abnormal Shutdown'"),
    row("tarn --set-status abnormal", "", 255, page="install.md", first=status("x"),
        then="tarn --search jnl -m | grep 'Abnormal Shutdown' && tarn --startup-replay"),
    row("tarn --set-status success", "", 255, page="install.md", first=status("x"),
        then="tarn --search jnl -m | grep 'Shutdown Successfully' && tarn --startup-replay"),
    row("tarn --search jnl -m", ("jnl_shutdown_tag Shutdown Successfully",)),
    row("tarn --search jnl -m", ("jnl_shutdown_tag Not Initialized",), page="install.md",
        first=status("abnormall")),
    row("tarn --vaaick log", ()),
    row("tarn --vaaick log", "", 255, first=status("bad"), logs=("BAD JOURNAL",)),
    # On this sound volume the check ends with 255, as on about half of all.
    row("TARN_PLATFORM_CONF=/root/rescue.conf tarn --ckvjnl", ("CHECK volume", "/lab/volume2"), 255,
        first="echo journal_root=$LAB/journal >$STATE/rescue.conf; echo volumes=$W >>$STATE/rescue.conf",
        lacks=("volume1",)),
    row("TARN_PLATFORM_CONF=/root/rescue.conf tarn --ckvjnl", "", 255, page="platform.md",
        logs=("/state/rescue.conf", "cannot be read")),

    # -- checks --
    row("tarn --fullck --volpath /volume1", ("Rebuild EP_TBL:",), then="[ ! -e $V/@EP_CHK ]"),
    row("tarn --fullck --volpath /volume1", (), 255, first=damage("reference-count"),
        logs=("refer-cnt mismatch", "(old, new)="), then="[ -e $V/@EP_CHK ]"),
    row("tarn --freeck ...", ("FreeList IS CONSISTENT",), words={"...": FILES}),
    row("tarn --freeck --fripath /volume1/@EP/EP_FRI --tblpath /volume1/@EP/EP_TBL",
        ("FreeList IS CONSISTENT",)),
    # R02 beside R04: an entry was moved to an extent of another LUN.
    row("tarn --freeck", ("FreeList IS CONSISTENT",), page="check.md", more=FILES,
        first=damage("alias", 2)),
    row("tarn --fullck", (), 255, page="check.md", more="--volpath $V",
        first=damage("alias", 2), lacks=("LUN_0 ", "LUN_1 "),
        logs=("used bit mismatch, lpa(3301), (old, new)=(1, 0)",)),
    row("tarn --fullck", (), 255, page="formats.md", more="--volpath $V",
        first=damage("leak"), logs=("used bit mismatch",)),
    row("tarn --freeck", (), 255, page="formats.md", more=FILES,
        logs=("NOT TAIL last entry in TBL freelist",),
        first=damage("list-loop", 3)),
    row("tarn --check-map", ("mapped_cnt mismatched",), page="formats.md", more="--mappath " + DAMAGED,
        first=damage("mapped-count", 3)),
    row("tarn --onekeycheck", ("FreeList IS CONSISTENT", "One Key check has successfully completed"),
        lacks=("mismatched",)),

    # -- repairs --
    row("tarn --onekeyrepair", (), more="--volpath $V", first=damage("table-noise"),
        then="tarn-lab verify $LAB --rebuilt && [ -e $V/@EP/EP_TBL.bkp ]"),
    row("tarn --onekeyrepair --volpath $V", (), first=damage("table-noise"),
        then="tarn-lab verify $LAB --rebuilt"),
    row("Next: tarn --onekeyrepair --volpath /volume1", (), words={"Next: ": ""},
        first=damage("dangling"), then="tarnctl check --volume $V"),
    # The service is started again, and start-up replay refuses: the repair has succeeded all the same.
    row("tarn --onekeyrepair", ("Reconstruction procedure has failed",), 255, page="install.md",
        more="--volpath $V",
        first=damage("table-noise") + status("bad") +
        "echo 'service_resume = /bin/false' >>$LAB/platform.conf",
        then="tarn --fullck --volpath $V"),
    row("tarn --check-map ... --repair", words={"...": "--mappath " + DAMAGED},
        first=damage("map-node-bit", 2),
        shows=("checksum mismatch",),
        then="! tarn --check-map --mappath " + DAMAGED + " | grep mismatch"),
    row('tarn --check-map --mappath "$MAP" $(kind) --repair', (),
        words={"$MAP": DAMAGED, "$(kind)": ""}, first=damage("mapped-count", 3),
        then="tarn-lab verify $LAB"),
    # F11. The groups beyond the count get no lists, and the count becomes the highest.
    row("tarn --finalize", page="check.md", more=REBUILT, first=TOO_LOW,
        then=f"! tarn --freeck {REBUILT} && "
        "tarn --search fri -p $V/@EP_FIX/EP_FRI -m | grep 'fri_group_count *528482304$'"),
    row("tarn --change-uuid", page="check.md",
        first="tarn --change-uuid tbl --tblpath $V/@EP/EP_TBL; tarnctl check >$LOG.check; grep P03 $LOG.check",
        more="tbl --tblpath $V/@EP/EP_TBL --uuid "
        "$(od -A n -t x1 -j 20 -N 16 $V/@EP/EP_DAT_00000 | tr -d ' \\n')",
        then="tarnctl check"),
    row("tarn --punch", ("Success to punch",), words={"tarn --punch": "echo YES | tarn --punch"},
        more="-p $V -a"),

    # -- single entries --
    row("tarn --search tbl -p /volume1/@EP/EP_TBL -a 1661", ("used[1] tail[0] count/next 1",),
        make="tarn-lab make $LAB --seed 11"),
    row("tarn --search tbl -m", ("tbl_uuid 0 0 0 0- 0 0- 0 0- 0 0- 0 0 0 0 0 0",),
        words={"-m": "-p $V/@EP/EP_TBL -m"},
        first="tarn --change-uuid tbl --tblpath $V/@EP/EP_TBL"),
    row("tarn --search fri -m", ("fri_uuid 0 0 0 0- 0 0- 0 0- 0 0- 0 0 0 0 0 0",),
        words={"-m": "-p $V/@EP/EP_FRI -m"},
        first="tarn --change-uuid fri --fripath $V/@EP/EP_FRI"),
    row("tarn --search map -p map -m", ("map_total_count 3", "map_mapped_count 2"), first=BY_HAND,
        needs=("xxd",)),
    row("tarn --search map -p map -a 2", ("poolnum[0] mapped[1] sync[0] lpa 8823",), first=BY_HAND,
        needs=("xxd",)),
    row("tarn --search jnl -p lab/journal/EP_JNL -b 340", ("jnl_transid 200", "jnl_seq_num 0", "jnl_flags 1", "[5] XCOPY TYPE",
         "dst_uuid 1e9e644f-",
         "src_uuid 9f 7c750-", "DST LEA 2992", "SRC LEA 1389", "count 5", "mapped_count_new 31"),
        make="tarn-lab make $LAB --seed 11"),

    # -- help --
    row("tarn --help", ("--startup-replay", "--fullck"), lacks=("--onekeyrepair",)),
    row("tarn --advhelp", ("--onekeyrepair", "--reconstruct"), lacks=("--startup-replay",)),
]


class tarn(on_a_server):
    def test_lines_do_what_the_pages_say(self):
        self.play(ROWS)


if __name__ == "__main__":
    main()
