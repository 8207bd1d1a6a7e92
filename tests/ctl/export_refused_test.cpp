// When `tarnctl export` refuses: names that fit no LUN or two, files that exist, places that an
// export must not write to, a service that writes, a journal that cannot be replayed, a full disk.
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

#include "ctl/support/everything.h"
#include "ctl/support/export_run.h"
#include "system/support/lab_sample.h"

namespace fs = std::filesystem;

class refused_exports : public testing::Test {
protected:
    refused_exports() : sample_(make_sample(place_, "s", 5, " --extents 400")) {}

    [[nodiscard]] std::string file(const std::string& name) const { return place_.file(name); }
    // The export, which must end with the status, say the words and make no file.
    void expect(int status, const std::string& words, const std::string& said) const {
        const auto before = tree_of(place_.path());
        const check_run run = export_on(sample_, words);
        EXPECT_EQ(run.status, status) << words << run.err;
        EXPECT_EQ(run.out, "");
        EXPECT_NE(run.err.find(said), std::string::npos) << words << ": " << run.err;
        EXPECT_EQ(tree_of(place_.path()), before) << words;
    }

    scratch_dir place_;
    std::string sample_;
};

TEST_F(refused_exports, of_a_name_that_fits_no_lun_or_two) {
    const std::string to = " --to " + file("x");
    expect(32, "LUN_77" + to, "'LUN_77' is the name of no LUN");
    expect(32, "'unmap buffer'" + to, "fits more than one map:\n    " + sample_ + "/volume1/@EP");
    expect(32, sample_ + "/volume1/@EP/EP_BUF" + to, "is no LUN");
    fs::create_directory(sample_ + "/volume2/@iSCSITrg/LUN_1");
    fs::copy_file(sample_ + "/volume1/@iSCSITrg/LUN_1/LUN_1_Extent_0",
                  sample_ + "/volume2/@iSCSITrg/LUN_1/LUN_1_Extent_0",
                  fs::copy_options::skip_existing);
    expect(32, "LUN_1" + to, "'LUN_1' fits more than one map");
    EXPECT_EQ(export_on(sample_, sample_ + "/volume1:LUN_1" + to).status, 0);
    fs::remove_all(sample_ + "/volume2");
    expect(32, "LUN_77 --to " + file("y"), sample_ + "/volume2 is not mounted");
}

TEST_F(refused_exports, over_what_exists) {
    for (const char* name : {"x", "x.part", "x.map"}) {
        std::ofstream(file(name)) << "old";
        expect(32, "LUN_1 --to " + file("x"), file(name));
        EXPECT_EQ(export_on(sample_, "LUN_1 --force --to " + file("x")).status, 0);
        EXPECT_EQ(fs::file_size(file("x")), 400u << 20);
        EXPECT_FALSE(fs::exists(file("x.part")));
        fs::remove(file("x"));
        fs::remove(file("x.map"));
    }
    fs::create_directory(file("d"));
    expect(32, "LUN_1 --force --to " + file("d"), "is no regular file");
    fs::create_symlink(file("elsewhere"), file("l"));
    expect(32, "LUN_1 --force --to " + file("l"), "is no regular file");
    expect(32, "LUN_1 --to " + file("no/x"), "No such file or directory");
    const std::string longest(252, 'n');  // with .map it is a byte too long
    expect(32, "LUN_1 --to " + file(longest), longest + ".map: File name too long");
    expect(16, "LUN_1", "--to is required");
}

// Twice the extent size, and the checksum of that part of the header as it was.
TEST_F(refused_exports, of_a_doubtful_extent_size) {
    const std::string shell_line = "printf '\\0\\0\\040\\0' | dd of=" + sample_ +
                                   "/volume1/@EP/EP_TBL bs=1 seek=68 conv=notrunc 2>/dev/null";
    ASSERT_EQ(shell(shell_line).status, 0);
    expect(4, "LUN_1 --to " + file("x"), "/volume1 cannot be trusted: it stands in a damaged part");
    EXPECT_EQ(export_on(sample_, "LUN_1 --inconsistent --to " + file("x")).status, 0);
    const ran space = shell("env TARN_PLATFORM_CONF=" + sample_ + "/platform.conf " +
                            TARN_CTL_PROGRAM + " space");
    EXPECT_EQ(space.status, 6);
    EXPECT_NE(space.text.find("Not exact: H01 "), std::string::npos) << space.text;
}

// What is printed there is the data of a LUN.
TEST_F(refused_exports, without_descriptors_print_no_words_on_standard_output) {
    for (int most = 4; most <= 12; most++) {
        const ran found = shell("env TARN_PLATFORM_CONF=" + sample_ +
                                "/platform.conf prlimit --nofile=" + std::to_string(most) + " " +
                                TARN_CTL_PROGRAM + " export LUN_1 --length 4096 --to - >" +
                                file("out") + " 2>/dev/null; grep -a TARN_INFO " + file("out"));
        EXPECT_EQ(found.status, 1) << most << ": " << found.text;
    }
}

TEST_F(refused_exports, into_a_volume_or_the_journal_by_any_way) {
    const std::string volume = sample_ + "/volume1";
    fs::create_directory_symlink(volume + "/@EP", file("way"));
    const std::string places[] = {
        volume + "/x",        volume + "/@EP/x",  volume + "/@iSCSITrg/LUN_1/x",
        volume + "/@EP/../x", file("way") + "/x", file("way") + "/../x"};
    for (const std::string& place : places) {
        expect(32, "LUN_1 --force --to " + place, "a volume of this server");
    }
    expect(32, "LUN_1 --force --to " + volume + "/@EP/EP_DAT_00000", "a volume of this server");
    expect(32, "LUN_1 --force --to " + sample_ + "/journal/EP_JNL", "the directory of the journal");
    const ran bound =
        shell("mkdir " + file("bound") + " && unshare -m sh -c 'mount --bind " + volume + "/@EP " +
              file("bound") + " && TARN_PLATFORM_CONF=" + sample_ +
              "/platform.conf " TARN_CTL_PROGRAM " export LUN_1 --to " + file("bound") + "/x'");
    EXPECT_EQ(bound.status, 32) << bound.text;
    EXPECT_NE(bound.text.find("a volume of this server"), std::string::npos) << bound.text;
}

TEST_F(refused_exports, on_a_full_disk_leave_the_part_and_name_it) {
    const std::string part = file("full") + "/x.part";
    const ran done = shell("mkdir " + file("full") +
                           " && unshare -m sh -c 'mount -t tmpfs -o "
                           "size=4k tmpfs " +
                           file("full") + " && TARN_PLATFORM_CONF=" + sample_ +
                           "/platform.conf " TARN_CTL_PROGRAM " export LUN_1 --to " + file("full") +
                           "/x; echo $?; ls " + file("full") + "'");
    EXPECT_EQ(done.text, "tarnctl: " + part +
                             ": No space left on device; the part that was written is left there\n"
                             "8\nx.part\n");
}

TEST_F(refused_exports, while_a_run_of_tarn_holds_the_lock) {
    for (const char* place : {"/volume2", "/journal"}) {
        const std::string locked = "flock " + sample_ + place + " ";
        const std::string command = "TARN_PLATFORM_CONF=" + sample_ +
                                    "/platform.conf " TARN_CTL_PROGRAM " export LUN_1 --to ";
        const ran refused = shell(locked + "-c '" + command + file("x") + "'");
        EXPECT_EQ(refused.status, 32) << refused.text;
        EXPECT_NE(refused.text.find("a run of tarn works on " + sample_), std::string::npos);
        EXPECT_FALSE(fs::exists(file("x")));
        const ran warned =
            shell(locked + "-c '" + command + file("x") + " --inconsistent --force'");
        EXPECT_EQ(warned.status, 0) << warned.text;
        EXPECT_NE(warned.text.find("Not of one moment: a run of tarn works on"), std::string::npos);
        fs::remove(file("x"));
    }
}

// A running service writes its journal: that is how it is noticed. On a busy machine it may write
// nothing during one export; so there are several.
TEST_F(refused_exports, while_the_service_writes) {
    const std::string export_it =
        "for i in 1 2 3 4 5 6 7 8 9 10; do " TARN_CTL_PROGRAM " export LUN_1 --to " + file("x");
    const ran done =
        shell("export TARN_PLATFORM_CONF=" + sample_ + "/platform.conf; " TARN_LAB_PROGRAM " run " +
              sample_ +
              " --seconds 60 --rate 2000 --seed 2 >/dev/null 2>&1 & run=$!; "
              "until [ -s " +
              sample_ + "/lab.run ]; do sleep 0.02; done; " + export_it +
              " 2>&1 >/dev/null; [ $? = 32 ] && break; rm -f " + file("x") + "*; done; ls " +
              file("x") + "* 2>/dev/null; " + export_it + " --force --inconsistent >/dev/null 2>" +
              file("warning") + "; echo $?; grep 'Not of one moment' " + file("warning") +
              " && break; done; kill $run; wait $run");
    EXPECT_NE(done.text.find("tarnctl: refused: the service runs: "), std::string::npos)
        << done.text;
    EXPECT_EQ(done.text.find(file("x") + "\n"), std::string::npos) << done.text;
    EXPECT_NE(done.text.find("\n0\ntarnctl: Not of one moment: the service wrote"),
              std::string::npos)
        << done.text;
    EXPECT_EQ(fs::file_size(file("x")), 400u << 20);
}

// What a replay would make of the server is not known; what is on the disk is.
TEST_F(refused_exports, if_the_journal_cannot_be_replayed) {
    const ran done = damage(sample_, "journal-block-in-window", 1);
    ASSERT_EQ(done.status, 0) << done.text;
    const std::string words = "LUN_1 --to " + file("x");
    expect(32, words, "the journal is damaged (J03)");
    const check_run run = export_on(sample_, words + " --inconsistent --json");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.err.find("read as they are, without the journal"), std::string::npos) << run.err;
    EXPECT_NE(run.out.find("\"mode\":\"raw\""), std::string::npos) << run.out;
    EXPECT_EQ(schema_problem(run.out), "");
}

TEST_F(refused_exports, if_a_replay_would_be_refused) {
    const std::string crashed = make_sample(place_, "c", 23, " --crash --extents 400");
    ASSERT_TRUE(tarn_lab("expect " + crashed).text.starts_with("refuses"));
    const auto before = everything(crashed);
    const check_run refusal = export_on(crashed, "LUN_1 --to " + file("x"));
    EXPECT_EQ(refusal.status, 32);
    EXPECT_NE(refusal.err.find("start-up replay would refuse:\n    "), std::string::npos)
        << refusal.err;
    EXPECT_FALSE(fs::exists(file("x")));
    const check_run run = export_on(crashed, "LUN_1 --inconsistent --to " + file("x"));
    EXPECT_TRUE(run.status == 0 || run.status == 4) << run.err;
    EXPECT_EQ(everything(crashed), before);
}
