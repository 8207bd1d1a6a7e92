// Two runs at once, as two processes: while one has locked a volume, a second one that would write
// to it is refused and touches nothing.
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <vector>

#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "system/support/sandbox.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;

// Both volumes hold one map, lea 0 in extent 5, and a table that agrees with it; the journal was
// closed cleanly. The programs that pause and resume the service run the script of their name.
class second_run : public testing::Test {
protected:
    second_run() {
        for (const unsigned number : {1u, 2u}) {
            make_sample_volume(box_.volume(number), 0x11);
            make_filled_map(box_.volume(number) + "/@iSCSITrg/LUN_Extent_1", 63, 1, {{0, 5}});
            make_dat(box_.volume(number) + "/@EP/EP_DAT_00000", 0x77, 0);
            set_tbl_word(box_.volume(number) + "/@EP/EP_TBL", 5, 0x8001);
        }
        make_jnl(box_.journal(), 0x25521814, {});
        box_.configure(
            "volumes = /volume1 /volume2\n"
            "service_pause = /bin/sh /scratch/pause\n"
            "service_resume = /bin/sh /scratch/resume\n");
        write_script("pause", "");
        write_script("resume", "");
    }
    // A "tarn WORDS" of the script prints into /scratch/printed and adds its status as a line to
    // /scratch/statuses.
    void write_script(const std::string& name, const std::string& lines) const {
        std::ofstream(box_.scratch() + "/" + name)
            << "echo " << name << " >>/scratch/calls\n"
            << "tarn() {\n    echo YES | " << TARN_PROGRAM << " \"$@\" >>/scratch/printed\n"
            << "    echo $? >>/scratch/statuses\n}\n"
            << lines << "\nexit 0\n";
    }
    std::string text_of(const std::string& name) const {
        std::ifstream file(box_.scratch() + "/" + name);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    run_result repair() const { return box_.run({"--onekeyrepair", "--volpath", "/volume1"}); }

    sandbox box_;
};

static const std::string TABLES = " --fripath /volume1/@EP/EP_FRI --tblpath /volume1/@EP/EP_TBL";
static const std::string MAP = " --mappath /volume1/@iSCSITrg/LUN_Extent_1";

// Every form of every command that would write into /volume1, or into all volumes.
static const std::vector<std::string> WRITING = {
    "--rpjnl fri" + TABLES,
    "--rpjnl tbl" + TABLES,
    "--rpjnl map" + MAP,
    "--rpjnl vol --volpath /volume1",
    "--rpvjnl",
    "--startup-replay",
    "--vaaifix" + TABLES,
    "--create fri --path /volume1/@EP/NEW",
    "--create tbl --path /volume1/@EP/NEW --oldpath /volume2/@EP/EP_TBL",
    "--create map --path /volume1/@EP/NEW --oldpath /volume2/@iSCSITrg/LUN_Extent_1",
    "--change-uuid fri" + TABLES,
    "--change-uuid tbl" + TABLES,
    "--import" + TABLES + MAP,
    "--import-volume --volpath /volume1",
    "--finalize" + TABLES,
    "--check-map --repair" + MAP,
    "--fullck --volpath /volume1",
    "--punch -a -p /volume1",
    "--reconstruct --volpath /volume1",
    "--onekeycheck",
    "--onekeyrepair --volpath /volume1",
};

TEST_F(second_run, that_writes_is_refused_by_every_command_and_touches_nothing) {
    std::string lines =
        "mkdir /scratch/before /scratch/after\n"
        "cp -a --sparse=always /volume1 /scratch/before\n";
    std::string refused;
    for (const std::string& words : WRITING) {
        lines += "tarn " + words + "\n";
        refused += "255\n";
    }
    write_script("pause", lines + "cp -a --sparse=always /volume1 /scratch/after\n");
    const run_result run = repair();
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(text_of("statuses"), refused);
    EXPECT_EQ(text_of("printed"),
              "TARN_INFO: jnlPath=/var/lib/tarn/EP_JNL\n"  // of start-up replay
              "TARN_INFO: Reconstruction procedure has failed\n");
    EXPECT_EQ(text_of("calls"), "pause\nresume\n");  // no second run paused the service
    size_t lines_logged = 0;
    for (const std::string& line : run.log) {
        const bool refusal = line == "ERR: run_lock(#) /volume1 is in use by another run of tarn\n";
        lines_logged += refusal ? 1 : 0;
    }
    EXPECT_EQ(lines_logged, WRITING.size()) << testing::PrintToString(run.log);
    EXPECT_EQ(tree_of(box_.scratch() + "/after"), tree_of(box_.scratch() + "/before"));
}

TEST_F(second_run, that_only_reads_is_not_refused) {
    const std::vector<std::string> reading = {
        "--freeck" + TABLES,
        "--metack" + TABLES + " --jnlpath /var/lib/tarn/EP_JNL",
        "--check-map" + MAP,
        "--ckjnl vol --volpath /volume1",
        "--ckvjnl",
        "--vaaick log",
        "--search tbl -p /volume1/@EP/EP_TBL -m",
    };
    std::string lines;
    std::string passed;
    for (const std::string& words : reading) {
        lines += "tarn " + words + "\n";
        passed += "0\n";
    }
    write_script("pause", lines);
    const run_result run = repair();
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(text_of("statuses"), passed);
    EXPECT_FALSE(run.logged("in use by another run"));
}

TEST_F(second_run, on_another_volume_works_unless_it_needs_the_journal) {
    write_script("pause",
                 "tarn --fullck --volpath /volume2\n"
                 "tarn --rpjnl vol --volpath /volume2\n");
    const run_result run = repair();
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(text_of("statuses"), "0\n255\n");
    EXPECT_TRUE(run.logged("ERR: run_lock(#) /var/lib/tarn is in use by another run of tarn\n"));
}

TEST_F(second_run, of_every_kind_is_refused_while_all_volumes_are_checked) {
    write_script("pause", "tarn --vaaifix" + TABLES +
                              "\ntarn --fullck --volpath /volume2\n"
                              "tarn --rpjnl tbl --jnlpath /scratch/EP_JNL" +
                              TABLES + "\n");
    EXPECT_EQ(box_.run({"--onekeycheck"}).status, 0);
    EXPECT_EQ(text_of("statuses"), "255\n255\n255\n");
}

// A service runs start-up replay when it starts: the lock is released before that.
TEST_F(second_run, by_the_service_that_is_resumed_finds_everything_free) {
    write_script("resume", "tarn --startup-replay\ntarn --rpvjnl\n");
    EXPECT_EQ(repair().status, 0);
    EXPECT_EQ(box_.run({"--onekeycheck"}).status, 0);
    EXPECT_EQ(text_of("statuses"), "0\n0\n0\n0\n");
    EXPECT_FALSE(file_exists(box_.volume(1) + "/@EP_FIX"));
}

// A stop signal that comes while the service is being paused changes nothing about it.
TEST_F(second_run, by_the_service_finds_everything_free_even_after_a_stop_signal) {
    write_script("pause", "kill -TERM $PPID");
    write_script("resume", "tarn --startup-replay");
    EXPECT_EQ(repair().status, 255);
    EXPECT_EQ(box_.run({"--onekeycheck"}).status, 255);
    EXPECT_EQ(text_of("calls"), "pause\nresume\npause\nresume\n");
    EXPECT_EQ(text_of("statuses"), "0\n0\n");
}

// Ctrl-C reaches every program of the terminal's process group.
TEST_F(second_run, and_ctrl_c_ends_none_of_the_programs_of_the_service) {
    write_script("pause",
                 "kill -INT -$(cut -d' ' -f5 /proc/$PPID/stat); echo paused >>/scratch/calls");
    write_script("resume", "echo resumed >>/scratch/calls");
    const run_result run = box_.run_program(
        "/usr/bin/setsid", {"-w", TARN_PROGRAM, "--onekeyrepair", "--volpath", "/volume1"}, {});
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(text_of("calls"), "pause\npaused\nresume\nresumed\n");
}

static run_result run_under(const sandbox& box, const std::string& directory,
                            std::vector<std::string> words) {
    words.insert(words.begin(), {"-n", directory, TARN_PROGRAM});
    return box.run_program("/usr/bin/flock", words, {});
}

TEST_F(second_run, is_refused_whoever_holds_the_lock) {
    const std::vector<std::string> fix = {"--vaaifix", "--fripath", "/volume1/@EP/EP_FRI",
                                          "--tblpath", "/volume1/@EP/EP_TBL"};
    EXPECT_EQ(run_under(box_, "/volume1", fix).status, 255);
    EXPECT_EQ(run_under(box_, "/volume2", fix).status, 0);
    EXPECT_EQ(run_under(box_, "/var/lib/tarn", fix).status, 0);
    EXPECT_EQ(run_under(box_, "/var/lib/tarn", {"--rpvjnl"}).status, 255);
    // Another journal in another directory.
    fs::copy(box_.journal(), box_.scratch() + "/EP_JNL");
    const std::vector<std::string> replay = {"--rpvjnl", "--jnlpath", "/scratch/EP_JNL"};
    EXPECT_EQ(run_under(box_, "/var/lib/tarn", replay).status, 0);
    EXPECT_EQ(run_under(box_, "/scratch", replay).status, 255);
    // A journal that is a link: every run locks the directory that it leads to.
    fs::rename(box_.journal(), box_.scratch() + "/real_jnl");
    fs::create_symlink("/scratch/real_jnl", box_.journal());
    EXPECT_EQ(run_under(box_, "/scratch", {"--rpvjnl"}).status, 255);
    EXPECT_EQ(run_under(box_, "/scratch", {"--startup-replay"}).status, 255);
}
