// --metack, --freeck, --fullck and --vaaifix on a group of 4096 extents laid out by hand.
#include <filesystem>
#include <gtest/gtest.h>

#include "support/sample_maps.h"
#include "system/support/sample_server.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;

static const std::string fri1 = "/volume1/@EP/EP_FRI";
static const std::string tbl1 = "/volume1/@EP/EP_TBL";
static const std::string both1 = "FRI " + fri1 + " TBL " + tbl1 + " ";

// Group 0 of volume 1: extents 0 to 4092 used once, free list 4094 -> 4093 -> 4095. Group 1 was
// never initialised.
class consistency : public testing::Test {
protected:
    consistency() {
        make_volumes(box);
        fri = box.volume(1) + "/@EP/EP_FRI";
        tbl = box.volume(1) + "/@EP/EP_TBL";
        for (uint64_t lpa = 0; lpa < 4093; lpa++) {
            set_tbl_word(tbl, lpa, 0x8001);
        }
        set_tbl_word(tbl, 4094, 0x0FFD);  // next: 4093
        set_tbl_word(tbl, 4093, 0x0FFF);  // next: 4095
        set_tbl_word(tbl, 4095, 0x1000);  // the tail
        // next group 1; head 4094 = 0xFFE; initialised, 3 free
        set_fri_word(fri, 0, 0x8003FFE000000001);
        make_jnl(box.journal(), 0x25521814, {});
    }
    run_result metack(const std::string& journal = JOURNAL) {
        return box.run({"--metack", "--fripath", fri1, "--tblpath", tbl1, "--jnlpath", journal});
    }
    run_result freeck() { return box.run({"--freeck", "--fripath", fri1, "--tblpath", tbl1}); }
    sandbox box;
    std::string fri;
    std::string tbl;
};

static const std::string walk_lines =
    "TARN_INFO: TBL free start from group_num 0 group_offset 4094 (lpa 4094)\n"
    "TARN_INFO: FREE_COUNT IS MATCH in TBL freelist, free count 3 check_free_count 3 group_num 0 "
    "group_offset 4094 (lpa 4094), tail entry offset 4095 (lpa 4095)\n";

TEST_F(consistency, metack_of_a_sound_head_group_prints_its_walk_and_exits_0) {
    const auto before = tree_of(box.volume(1));
    const run_result got = metack();
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, "TARN_INFO: CHECK " + both1 + "CONSISTENT\n" +
                           "TARN_INFO: FRI group_head 0 free_count 3\n" + walk_lines +
                           "TARN_INFO: " + both1 + "IS CONSISTENT\n");
    EXPECT_EQ(got.log, lines{});
    EXPECT_EQ(tree_of(box.volume(1)), before);
}

TEST_F(consistency, metack_of_a_wrong_count_exits_255) {
    set_fri_word(fri, 0, 0x8004FFE000000001);
    const auto before = tree_of(box.volume(1));
    const run_result got = metack();
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log,
              (lines{"ERR: tbl_check_group_free_count(#) FREE_COUNT NOT MATCH in TBL freelist, "
                     "free count 3 check_free_count 4 group_num 0 offset 4094 (lpa 4095)\n",
                     "ERR: check_metadata_consistent(#) " + both1 + "IS IN-CONSISTENT\n"}));
    EXPECT_EQ(got.out.find("IS CONSISTENT"), std::string::npos);
    EXPECT_EQ(tree_of(box.volume(1)), before);
}

TEST_F(consistency, metack_needs_every_file_including_the_journal) {
    const run_result journal = metack("/none");
    EXPECT_EQ(journal.status, 255);
    EXPECT_EQ(journal.out, "");
    ASSERT_FALSE(journal.log.empty());
    EXPECT_EQ(journal.log.back(), "ERR: check_metadata_consistent(#) Fail to load JNL /none\n");
    fs::remove(tbl);
    EXPECT_EQ(metack().log.back(),
              "ERR: check_metadata_consistent(#) Fail to load TBL " + tbl1 + "\n");
    fs::remove(fri);
    EXPECT_EQ(metack().log.back(),
              "ERR: check_metadata_consistent(#) Fail to load FRI " + fri1 + "\n");
}

TEST_F(consistency, freeck_walks_the_group_list_to_its_end) {
    const auto before = tree_of(box.volume(1));
    const run_result got = freeck();
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, "TARN_INFO: CHECK " + both1 + "Free-List CONSISTENCY\n" +
                           "TARN_INFO: FRI check free group list:\n" + walk_lines +
                           "TARN_INFO: FRI last group_num 1\n"
                           "TARN_INFO: FreeList IS CONSISTENT\n");
    EXPECT_EQ(got.log, lines{});
    EXPECT_EQ(tree_of(box.volume(1)), before);
}

TEST_F(consistency, freeck_stops_at_a_group_whose_list_is_wrong) {
    set_tbl_word(tbl, 4093, 0x0FFE);  // back to 4094
    const run_result got = freeck();
    EXPECT_EQ(got.status, 255);
    ASSERT_FALSE(got.log.empty());
    EXPECT_EQ(got.log.back(), "ERR: check_freelist_consistent(#) FreeList IS IN-CONSISTENT\n");
}

TEST_F(consistency, freeck_reports_a_group_list_that_loops) {
    set_fri_word(fri, 0, 0x8003FFE000000000);  // next: itself
    const run_result got = freeck();
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log, (lines{"ERR: fri_check_free_group_list(#) error, group-list loops\n",
                              "ERR: check_freelist_consistent(#) FreeList IS IN-CONSISTENT\n"}));
}

TEST_F(consistency, freeck_logs_the_file_that_does_not_load) {
    fs::remove(tbl);
    EXPECT_EQ(freeck().log.back(),
              "ERR: check_freelist_consistent(#) Fail to load TBL " + tbl1 + "\n");
    fs::remove(fri);
    const run_result got = freeck();
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log.back(), "ERR: check_freelist_consistent(#) Fail to load FRI " + fri1 + "\n");
}

TEST_F(consistency, vaaifix_links_lost_extents_in_ascending_order) {
    set_tbl_word(tbl, 100, 0);  // free, on no list
    const run_result got = box.run({"--vaaifix", "--fripath", fri1, "--tblpath", tbl1});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, walk_lines +
                           "TARN_INFO: Fix FRI from fri_free_count 4096\n"
                           "TARN_INFO: Fix FRI to fri_free_count 4097\n"
                           "TARN_INFO: Fix FRI from fri_group_head 0\n"
                           "TARN_INFO: Fix FRI to fri_group_head 0\n");
    EXPECT_EQ(tbl_word_of(tbl, 100), 0x0FFD);   // 4093
    EXPECT_EQ(tbl_word_of(tbl, 4093), 0x0FFE);  // 4094
    EXPECT_EQ(tbl_word_of(tbl, 4094), 0x0FFF);  // 4095
    EXPECT_EQ(tbl_word_of(tbl, 4095) & 0x9000, 0x1000);
    EXPECT_EQ(fri_word_of(fri, 0), 0x8004064000000001U);  // 4 free, head 100 = 0x064
    EXPECT_EQ(fri_free_count_of(fri), 4097U);
    EXPECT_EQ(freeck().status, 0);
    const auto repaired = tree_of(box.volume(1));
    EXPECT_EQ(box.run({"--vaaifix", "--fripath", fri1, "--tblpath", tbl1}).status, 0);
    EXPECT_EQ(tree_of(box.volume(1)), repaired);
}

TEST_F(consistency, vaaifix_skips_a_group_whose_list_is_wrong) {
    set_fri_word(fri, 0, 0x8004FFE000000001);
    const std::vector<uint8_t> block = node_bytes(fri, 0);
    const run_result got = box.run({"--vaaifix", "--fripath", fri1, "--tblpath", tbl1});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(node_bytes(fri, 0), block);
    EXPECT_EQ(fri_free_count_of(fri), 4096U);
}

class full_check : public testing::Test {
protected:
    full_check() {
        make_volumes(box);
        tbl = box.volume(1) + "/@EP/EP_TBL";
        work = box.volume(1) + "/@EP_CHK";
    }
    void put_map(const std::vector<sample_entry>& entries) {
        make_directories(box.volume(1) + "/@iSCSITrg/LUN");
        make_filled_map(box.volume(1) + "/@iSCSITrg/LUN/x_Extent_1", 126, entries.size(), entries);
    }
    run_result run() { return box.run({"--fullck", "--volpath", "/volume1"}); }
    sandbox box;
    std::string tbl;
    std::string work;
};

TEST_F(full_check, without_references_it_passes_at_once_and_cleans_up) {
    const auto before = tree_of(box.volume(1));
    const run_result got = run();
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.log, lines{});
    EXPECT_EQ(tree_of(box.volume(1)), before);
}

TEST_F(full_check, links_of_free_extents_are_not_compared) {
    put_map({{0, 7}});
    set_tbl_word(tbl, 7, 0x8001);
    set_tbl_word(tbl, 8, 0x0123);
    set_tbl_word(tbl, 9, 0x1000);
    const auto before = tree_of(box.volume(1));
    const run_result got = run();
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.log, lines{});
    EXPECT_EQ(tree_of(box.volume(1)), before);
}

TEST_F(full_check, the_first_difference_is_reported_and_the_rebuilt_files_stay) {
    struct {
        uint16_t word;
        const char* line;
    } const rows[] = {
        {0x0000, "TBL: used bit mismatch, lpa(7), (old, new)=(0, 1)\n"},
        {0x8002, "TBL: refer-cnt mismatch, lpa(7), (old, new)=(2, 1)\n"},
    };
    for (const auto& row : rows) {
        fs::remove_all(work);
        put_map({{0, 7}});
        set_tbl_word(tbl, 7, row.word);
        const run_result got = run();
        EXPECT_EQ(got.status, 255);
        ASSERT_FALSE(got.log.empty());
        EXPECT_EQ(got.log.back(), std::string("ERR: do_check_full_tbl_consistent(#) ") + row.line);
        EXPECT_TRUE(fs::exists(work + "/EP_TBL"));
        EXPECT_TRUE(fs::exists(work + "/EP_FRI"));
        EXPECT_EQ(tbl_word_of(tbl, 7), row.word);
    }
}

TEST_F(full_check, an_extent_that_only_the_table_uses_is_reported) {
    put_map({{0, 7}});
    set_tbl_word(tbl, 7, 0x8001);
    set_tbl_word(tbl, 4000, 0x8001);
    const run_result got = run();
    EXPECT_EQ(got.status, 255);
    EXPECT_TRUE(got.logged("TBL: used bit mismatch, lpa(4000), (old, new)=(1, 0)\n"));
    EXPECT_TRUE(fs::exists(work));
}
