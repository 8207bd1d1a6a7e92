// The checks and rebuilds of one volume by the built program: their output, their exit status and
// the files on the volume afterwards.
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "system/support/sandbox.h"

namespace fs = std::filesystem;

// /volume1: one map, its lea 0 in extent 5 and its lea 1 in extent 6; table and index agree.
class rebuild : public testing::Test {
protected:
    rebuild() {
        make_sample_volume(root(), 0x11);
        make_filled_map(map(), 63, 2, {{0, 5}, {1, 6}});
        make_dat(root() + "/@EP/EP_DAT_00000", 0x77, 0);
        set_tbl_word(live("EP_TBL"), 5, 0x8001);
        set_tbl_word(live("EP_TBL"), 6, 0x8001);
    }

    std::string root() const { return box_.volume(1); }
    std::string live(const std::string& name) const { return root() + "/@EP/" + name; }
    std::string fix(const std::string& name) const { return root() + "/@EP_FIX/" + name; }
    std::string map() const { return root() + "/@iSCSITrg/LUN_Extent_1"; }

    static constexpr const char* MAP = "/volume1/@iSCSITrg/LUN_Extent_1";
    sandbox box_;
};

TEST_F(rebuild, check_map_reports_damage_and_exits_with_0) {
    spoil_node(map(), 0);
    const run_result run = box_.run({"--check-map", "--mappath", MAP});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "TARN_INFO: Try to check 1 data-node\n" + progress_lines(0, 0) +
                           "TARN_INFO: checksum mismatched: node_num(0)\n"
                           "TARN_INFO:     lea(0), lpa(5)\n"
                           "TARN_INFO:     lea(1), lpa(6)\n" +
                           progress_lines(1, 1) +
                           "TARN_INFO: mapped_cnt matched: (2), on-disk(2)\n");
}

TEST_F(rebuild, check_map_with_repair_zeroes_the_node_and_the_count) {
    spoil_node(map(), 0);
    const run_result run = box_.run({"--check-map", "--mappath", MAP, "--repair"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "TARN_INFO: Try to check 1 data-node\n" + progress_lines(0, 0) +
                           "TARN_INFO: repair: node_num(0)\n"
                           "TARN_INFO: checksum mismatched: node_num(0)\n" +
                           progress_lines(1, 1) +
                           "TARN_INFO: mapped_cnt mismatched: (0), on-disk(2)\n"
                           "TARN_INFO: mapped_cnt repair: (0), on-disk(0)\n");
    EXPECT_EQ(mapped_count_of(map()), 0u);
}

TEST_F(rebuild, check_map_takes_the_kind_of_the_map_from_its_options) {
    const run_result buffer = box_.run({"--check-map", "--mappath", MAP, "--unmap"});
    EXPECT_NE(buffer.out.find("mapped_cnt matched: (2)"), std::string::npos);
    const run_result rod = box_.run({"--check-map", "--mappath", MAP, "--rod"});
    EXPECT_NE(rod.out.find("Try to check 8583 data-node\n"), std::string::npos);
}

TEST_F(rebuild, import_counts_into_the_given_files) {
    set_tbl_word(live("EP_TBL"), 5, 0);
    const run_result run = box_.run({"--import", "--fripath", "/volume1/@EP/EP_FRI", "--tblpath",
                                     "/volume1/@EP/EP_TBL", "--mappath", MAP});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "TARN_INFO: Try to import 2/63 mappings\n" + progress_lines(0, 63));
    EXPECT_EQ(tbl_word_of(live("EP_TBL"), 5), 0x8001);
    EXPECT_EQ(tbl_word_of(live("EP_TBL"), 6), 0x8002);
    EXPECT_EQ(fri_group_count_of(live("EP_FRI")), 1u);
}

TEST_F(rebuild, import_takes_the_kind_of_the_map_from_its_options) {
    make_filled_map(live("EP_BUF"), 63, 1, {{0, 7}, {9, 8}});  // ends at its first unmapped entry
    const std::vector<std::string> words = {
        "--import",           "--fripath",           "/volume1/@EP/EP_FRI",
        "--tblpath",          "/volume1/@EP/EP_TBL", "--mappath",
        "/volume1/@EP/EP_BUF"};
    std::vector<std::string> as_buffer = words;
    as_buffer.push_back("--unmap");
    EXPECT_EQ(box_.run(as_buffer).status, 0);
    EXPECT_EQ(tbl_word_of(live("EP_TBL"), 7), 0x8001);
    EXPECT_EQ(tbl_word_of(live("EP_TBL"), 8), 0);
    const run_result as_lun = box_.run(words);
    EXPECT_EQ(as_lun.status, 255);
    EXPECT_TRUE(as_lun.logged("ERR: import_map(#) mapped_cnt is wrong\n"));
    std::vector<std::string> as_rod = words;
    as_rod.push_back("--rod");
    EXPECT_NE(box_.run(as_rod).out.find("TARN_INFO: Try to import 1/540672 mappings\n"),
              std::string::npos);
}

TEST_F(rebuild, a_stray_word_after_import_is_reported) {
    const run_result run = box_.run({"--import", "x"});
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(run.out, "none-option argv element:x \n");
}

TEST_F(rebuild, import_volume_and_finalize_make_a_table_and_an_index_that_pass_the_check) {
    EXPECT_EQ(box_.run({"--import-volume", "--volpath", "/volume1"}).status, 0);
    EXPECT_EQ(fri_group_count_of(fix("EP_FRI")), 1u);
    const std::vector<std::string> files = {"--fripath", "/volume1/@EP_FIX/EP_FRI", "--tblpath",
                                            "/volume1/@EP_FIX/EP_TBL"};
    std::vector<std::string> words = {"--finalize"};
    words.insert(words.end(), files.begin(), files.end());
    const run_result finalized = box_.run(words);
    EXPECT_EQ(finalized.status, 0);
    EXPECT_EQ(finalized.out, "TARN_INFO: Processing 0/100\n");
    words[0] = "--freeck";
    const run_result checked = box_.run(words);
    EXPECT_EQ(checked.status, 0);
    EXPECT_TRUE(checked.out.ends_with("TARN_INFO: FreeList IS CONSISTENT\n"));
}

TEST_F(rebuild, import_volume_over_an_existing_directory_creates_nothing) {
    make_directories(root() + "/@EP_FIX");
    const run_result run = box_.run({"--import-volume", "--volpath", "/volume1"});
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.log, std::vector<std::string>(
                           {"ERR: do_import_volume(#) Fail to mkdir(/volume1/@EP_FIX)\n"}));
    EXPECT_TRUE(fs::is_empty(root() + "/@EP_FIX"));
}

TEST_F(rebuild, fullck_removes_its_directory_when_all_is_well) {
    const run_result run = box_.run({"--fullck", "--volpath", "/volume1"});
    EXPECT_EQ(run.status, 0);
    EXPECT_FALSE(file_exists(root() + "/@EP_CHK"));
}

TEST_F(rebuild, fullck_keeps_its_directory_after_a_mismatch) {
    set_tbl_word(live("EP_TBL"), 6, 0x8002);
    const run_result run = box_.run({"--fullck", "--volpath", "/volume1"});
    EXPECT_EQ(run.status, 255);
    EXPECT_TRUE(
        run.logged("ERR: do_check_full_tbl_consistent(#) TBL: refer-cnt mismatch, lpa(6), "
                   "(old, new)=(2, 1)\n"));
    EXPECT_TRUE(file_exists(root() + "/@EP_CHK/EP_TBL"));
}

TEST_F(rebuild, reconstruct_refuses_a_path_that_is_not_a_volume) {
    fs::remove_all(root() + "/@iSCSITrg");
    const run_result run = box_.run({"--reconstruct", "--volpath", "/volume1"});
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(run.out, "TARN_INFO: /volume1/@iSCSITrg is not a VAAI volume\n");
}

TEST_F(rebuild, reconstruct_keeps_both_the_rebuilt_files_and_the_live_ones) {
    const run_result run = box_.run({"--reconstruct", "--volpath", "/volume1"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(fri_word_of(fix("EP_FRI"), 0), 0x8ffe000000000001);
    EXPECT_EQ(fri_word_of(live("EP_FRI"), 0), 0u);
}

TEST_F(rebuild, reconstruct_with_repair_repairs_the_maps_first) {
    spoil_node(map(), 0);
    const run_result run = box_.run({"--reconstruct", "--volpath", "/volume1", "--repair"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(fri_group_count_of(fix("EP_FRI")), 0x1F800000u);
    EXPECT_EQ(tbl_word_of(fix("EP_TBL"), 5), 0);
    EXPECT_EQ(mapped_count_of(map()), 0u);
}

TEST_F(rebuild, no_run_follows_a_work_directory_that_is_a_link) {
    make_empty_file(root() + "/kept/EP_TBL");
    for (const char* name : {"/@EP_FIX", "/@EP_CHK"}) {
        fs::create_directory_symlink("kept", root() + name);
    }
    for (const char* command : {"--import-volume", "--reconstruct", "--fullck", "--onekeyrepair"}) {
        EXPECT_EQ(box_.run({command, "--volpath", "/volume1"}).status, 255) << command;
    }
    EXPECT_EQ(box_.run({"--onekeycheck"}).status, 255);
    EXPECT_EQ(fs::file_size(root() + "/kept/EP_TBL"), 0u);
    EXPECT_FALSE(file_exists(root() + "/kept/EP_FRI"));
}

TEST_F(rebuild, a_map_with_an_absurd_count_is_scanned_quickly) {
    set_header_u64(map(), 64, 76, uint64_t{1} << 50);
    const run_result run = box_.run({"--check-map", "--mappath", MAP});
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(run.out.ends_with("TARN_INFO: mapped_cnt matched: (2), on-disk(2)\n"));
}
