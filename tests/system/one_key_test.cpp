// The one-key procedures of the built program, which pause the service.
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stop_signal_defaults.h"
#include "system/support/sandbox.h"

// Both volumes hold one map, lea 0 in extent 5, and a table that agrees with it. The service's
// program notes its calls and fails the one that /scratch/fail names.
class one_key_run : public testing::Test {
protected:
    one_key_run() {
        for (const unsigned number : {1u, 2u}) {
            make_sample_volume(box_.volume(number), 0x11);
            make_filled_map(box_.volume(number) + "/@iSCSITrg/LUN_Extent_1", 63, 1, {{0, 5}});
            make_dat(live("EP_DAT_00000", number), 0x77, 0);
            set_tbl_word(live("EP_TBL", number), 5, 0x8001);
        }
        box_.configure(
            "volumes = /volume1 /volume2\n"
            "service_pause = /bin/sh /scratch/service pause\n"
            "service_resume = /bin/sh /scratch/service resume\n");
        write_service("test ! -e /scratch/fail-$1");
    }
    void write_service(const std::string& lines) const {
        std::ofstream(box_.scratch() + "/service") << "echo \"$*\" >>/scratch/calls\n"
                                                   << lines << "\n";
    }

    std::string live(const std::string& name, unsigned number = 1) const {
        return box_.volume(number) + "/@EP/" + name;
    }
    std::string service_calls() const {
        std::ifstream file(box_.scratch() + "/calls");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    static constexpr const char* REPAIRING =
        "pause iscsitrg iSCSI service running repairing maintainance procedures\n"
        "resume iscsitrg iSCSI service running repairing maintainance procedures\n";
    static constexpr const char* CHECKING =
        "pause iscsitrg iSCSI service running checking maintainance procedures\n"
        "resume iscsitrg iSCSI service running checking maintainance procedures\n";
    const stop_signal_defaults defaults_;  // for the program that is run
    sandbox box_;
};

TEST_F(one_key_run, repair_brings_back_a_lost_index_and_a_table_of_noise) {
    std::filesystem::remove(live("EP_FRI"));
    const std::string noise(16 * 512, '\xa7');
    write_file_bytes(live("EP_TBL"), 1u << 20, noise.data(), noise.size());
    const run_result run = box_.run({"--onekeyrepair", "--volpath", "/volume1"});
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(run.out.ends_with("TARN_INFO: One Key Repair has successfully completed\n"));
    EXPECT_EQ(service_calls(), REPAIRING);
    EXPECT_EQ(tbl_word_of(live("EP_TBL"), 5), 0x8001);
    EXPECT_EQ(tbl_word_of(live("EP_TBL.bkp"), 5), 0xa7a7);
    EXPECT_EQ(fri_word_of(live("EP_FRI"), 0), 0x8fff000000000001);
    EXPECT_EQ(uuid_in(live("EP_FRI")), uuid_of(0x77));
    EXPECT_FALSE(file_exists(box_.volume(1) + "/@EP_FIX"));
    EXPECT_EQ(box_.run({"--fullck", "--volpath", "/volume1"}).status, 0);
    EXPECT_EQ(box_.run({"--freeck", "--fripath", "/volume1/@EP/EP_FRI", "--tblpath",
                        "/volume1/@EP/EP_TBL"})
                  .status,
              0);
}

TEST_F(one_key_run, repair_without_a_volume_only_asks_for_one) {
    const run_result run = box_.run({"--onekeyrepair"});
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(run.out, "TARN_INFO: Please assign volpath by --volpath");
    EXPECT_EQ(service_calls(), "");
}

TEST_F(one_key_run, a_repair_that_fails_says_so_and_resumes_the_service) {
    std::filesystem::remove(live("EP_DAT_00000"));
    const run_result run = box_.run({"--onekeyrepair", "--volpath", "/volume1"});
    EXPECT_EQ(run.status, 255);
    EXPECT_TRUE(run.out.ends_with("TARN_INFO: Reconstruction procedure has failed\n"));
    EXPECT_EQ(service_calls(), REPAIRING);
    EXPECT_FALSE(file_exists(live("EP_TBL.bkp")));
}

TEST_F(one_key_run, nothing_is_repaired_while_the_service_cannot_be_paused) {
    make_empty_file(box_.scratch() + "/fail-pause");
    const run_result run = box_.run({"--onekeyrepair", "--volpath", "/volume1"});
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(run.out, "TARN_INFO: Reconstruction procedure has failed\n");
    EXPECT_TRUE(run.logged("tarn:# failed to pause iscsi service"));
    EXPECT_FALSE(file_exists(live("EP_TBL.bkp")));
}

TEST_F(one_key_run, a_finished_repair_fails_if_the_service_does_not_start_again) {
    make_empty_file(box_.scratch() + "/fail-resume");
    const run_result run = box_.run({"--onekeyrepair", "--volpath", "/volume1"});
    EXPECT_EQ(run.status, 255);
    EXPECT_TRUE(run.out.ends_with("TARN_INFO: Reconstruction procedure has failed\n"));
    EXPECT_TRUE(run.logged("tarn:# failed to start iscsi service"));
    EXPECT_TRUE(file_exists(live("EP_TBL.bkp")));
}

TEST_F(one_key_run, repair_stopped_by_a_signal_resumes_the_service_and_leaves_the_volume) {
    set_tbl_word(live("EP_TBL"), 5, 0x8009);
    for (const char* name : {"INT", "TERM", "HUP"}) {
        std::filesystem::remove(box_.scratch() + "/calls");
        write_service("test $1 = resume || kill -" + std::string(name) + " $PPID");
        const run_result run = box_.run({"--onekeyrepair", "--volpath", "/volume1"});
        EXPECT_EQ(run.status, 255) << name;
        EXPECT_TRUE(run.out.ends_with("TARN_INFO: Reconstruction procedure has failed\n"));
        EXPECT_TRUE(run.logged(" stops this run\n")) << name;
        EXPECT_EQ(service_calls(), REPAIRING);
        EXPECT_EQ(tbl_word_of(live("EP_TBL"), 5), 0x8009);
        EXPECT_FALSE(file_exists(live("EP_TBL.bkp")));
    }
}

TEST_F(one_key_run, check_stopped_by_a_signal_resumes_the_service) {
    write_service("test $1 = resume || kill -TERM $PPID");
    const run_result run = box_.run({"--onekeycheck"});
    EXPECT_EQ(run.status, 255);
    EXPECT_TRUE(run.logged("ERR: stop_requested(#) signal 15 (Terminated) stops this run\n"));
    EXPECT_EQ(service_calls(), CHECKING);
}

TEST_F(one_key_run, a_signal_after_the_work_is_done_does_not_change_the_exit_status) {
    write_service("test $1 = pause || kill -TERM $PPID");
    const run_result run = box_.run({"--onekeyrepair", "--volpath", "/volume1"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.signal, 0);
    EXPECT_TRUE(run.out.ends_with("TARN_INFO: One Key Repair has successfully completed\n"));
}

TEST_F(one_key_run, the_signals_are_not_blocked_in_the_programs_it_starts) {
    write_service("kill -TERM $$\nexit 0");
    const run_result run = box_.run({"--onekeycheck"});
    EXPECT_EQ(run.status, 255);
    EXPECT_TRUE(run.logged("tarn:# failed to pause iscsi service"));
}

TEST_F(one_key_run, finishes_an_interrupted_swap) {
    set_tbl_word(live("EP_TBL"), 5, 0x8009);
    std::filesystem::create_directories(live("EP_FRI.bkp/deep"));
    EXPECT_EQ(box_.run({"--onekeyrepair", "--volpath", "/volume1"}).status, 255);
    EXPECT_TRUE(file_exists(box_.volume(1) + "/@EP_FIX/swap"));
    std::filesystem::remove_all(live("EP_FRI.bkp"));
    std::filesystem::remove(box_.scratch() + "/calls");
    const run_result run = box_.run({"--onekeyrepair", "--volpath", "/volume1"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "TARN_INFO: One Key Repair has successfully completed\n");
    EXPECT_EQ(service_calls(), REPAIRING);
    EXPECT_EQ(tbl_word_of(live("EP_TBL"), 5), 0x8001);
    EXPECT_EQ(tbl_word_of(live("EP_TBL.bkp"), 5), 0x8009);
    EXPECT_EQ(fri_word_of(live("EP_FRI"), 0), 0x8fff000000000001);
    EXPECT_FALSE(file_exists(box_.volume(1) + "/@EP_FIX"));
}

TEST_F(one_key_run, check_of_two_sound_volumes_passes) {
    const run_result run = box_.run({"--onekeycheck"});
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("TARN_INFO: import volume /volume1\n"), std::string::npos);
    EXPECT_NE(run.out.find("TARN_INFO: import volume /volume2\n"), std::string::npos);
    EXPECT_TRUE(run.out.ends_with("TARN_INFO: One Key check has successfully completed\n"));
    EXPECT_EQ(service_calls(), CHECKING);
}

TEST_F(one_key_run, check_fails_on_a_wrong_table_and_leaves_no_directory) {
    set_tbl_word(live("EP_TBL", 2), 5, 0x8002);
    const run_result run = box_.run({"--onekeycheck"});
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(run.out.find("One Key check"), std::string::npos);
    EXPECT_TRUE(run.logged("TBL: refer-cnt mismatch, lpa(5), (old, new)=(2, 1)\n"));
    EXPECT_FALSE(file_exists(box_.volume(2) + "/@EP_CHK"));
    EXPECT_EQ(service_calls(), CHECKING);
}

TEST_F(one_key_run, check_with_repair_repairs_the_maps) {
    set_header_u64(box_.volume(2) + "/@iSCSITrg/LUN_Extent_1", 4096, 4100, 9);
    EXPECT_EQ(box_.run({"--onekeycheck", "--repair"}).status, 0);
    EXPECT_EQ(mapped_count_of(box_.volume(2) + "/@iSCSITrg/LUN_Extent_1"), 1u);
}

// The options are not scanned before the pause; the scan of the replay is ignored.
TEST_F(one_key_run, check_is_not_stopped_by_a_stray_word) {
    const run_result run = box_.run({"--onekeycheck", "word"});
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("none-option argv element:word \n"), std::string::npos);
    EXPECT_TRUE(run.out.ends_with("TARN_INFO: One Key check has successfully completed\n"));
    EXPECT_EQ(service_calls(), CHECKING);
}

TEST_F(one_key_run, ckvbuf_counts_the_volumes_whose_buffer_is_not_empty) {
    EXPECT_EQ(box_.run({"--ckvbuf"}).status, 255);
    make_filled_map(live("EP_BUF", 1), 63, 0, {});
    make_filled_map(live("EP_BUF", 2), 63, 1, {{0, 9}});
    const run_result run = box_.run({"--ckvbuf"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "TARN_INFO: volumes with unmapped buffer         1\n");
    EXPECT_EQ(box_.run({"--ckvbuf", "word"}).out, run.out);  // it reads no options
}
