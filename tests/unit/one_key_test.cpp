#include "volume/one_key.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include "cli/operations.h"
#include "support/begun_swap.h"
#include "support/io_faults.h"
#include "support/one_key_fixture.h"
#include "volume/table_swap.h"

namespace fs = std::filesystem;

TEST_F(one_key_repair_of_a_volume, swaps_the_rebuilt_files_in_and_keeps_the_previous_ones) {
    set_fri_word(live("EP_FRI"), 0, 0x9000000000000005);
    EXPECT_EQ(repair(), 0);
    EXPECT_EQ(tbl_word_of(live("EP_TBL"), 1), 0x8001);
    EXPECT_EQ(fri_word_of(live("EP_FRI"), 0), 0x8fff000000000001);
    EXPECT_EQ(tbl_word_of(live("EP_TBL.bkp"), 1), 0x8009);
    EXPECT_EQ(fri_word_of(live("EP_FRI.bkp"), 0), 0x9000000000000005);
    EXPECT_FALSE(file_exists(root() + "/@EP_FIX"));
}

TEST_F(one_key_repair_of_a_volume, overwrites_an_older_backup) {
    make_tbl(live("EP_TBL.bkp"), uuid_of(0x55));
    EXPECT_EQ(repair(), 0);
    EXPECT_EQ(uuid_in(live("EP_TBL.bkp")), uuid_of(0x11));
}

TEST_F(one_key_repair_of_a_volume, works_without_a_live_index) {
    unlink(live("EP_FRI").c_str());
    EXPECT_EQ(repair(), 0);
    EXPECT_EQ(uuid_in(live("EP_FRI")), uuid_of(0x77));
    EXPECT_FALSE(file_exists(live("EP_FRI.bkp")));
}

TEST_F(one_key_repair_of_a_volume, is_not_stopped_by_a_journal_that_cannot_be_replayed) {
    EXPECT_EQ(repair(), 0);  // there is no journal
    EXPECT_TRUE(log_.has("Fail to load JNL"));
}

TEST_F(one_key_repair_of_a_volume, moves_no_live_file_when_the_reconstruction_fails) {
    make_filled_map(map(), 63, 0, {{0, 1}});
    EXPECT_EQ(repair(), -1);
    EXPECT_EQ(tbl_word_of(live("EP_TBL"), 1), 0x8009);
    EXPECT_TRUE(file_exists(live("EP_FRI")));
    EXPECT_FALSE(file_exists(live("EP_TBL.bkp")));
    EXPECT_FALSE(file_exists(live("EP_FRI.bkp")));
    EXPECT_FALSE(file_exists(root() + "/@EP_FIX"));
}

TEST_F(one_key_repair_of_a_volume, refuses_a_path_that_would_be_cut_before_it_touches_anything) {
    snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s/%s", root().c_str(),
             std::string(250, '/').c_str());
    EXPECT_EQ(repair(), -1);
    EXPECT_TRUE(log_.has("path does not fit"));
    EXPECT_EQ(text_, "");
}

TEST_F(one_key_repair_of_a_volume, finishes_an_interrupted_swap_without_replay_and_rebuild) {
    put_begun_swap(root(), 0x22, 0x33);
    EXPECT_EQ(repair(), 0);
    EXPECT_EQ(text_, "");
    EXPECT_EQ(uuid_in(live("EP_TBL")), uuid_of(0x22));
    EXPECT_EQ(uuid_in(live("EP_FRI")), uuid_of(0x33));
    EXPECT_EQ(uuid_in(live("EP_TBL.bkp")), uuid_of(0x11));
    EXPECT_FALSE(file_exists(root() + "/@EP_FIX"));
    EXPECT_EQ(log_.lines(), log_lines({}));
}

class one_key_repair_that_is_older : public one_key_repair_of_a_volume {
protected:
    one_key_repair_that_is_older() {
        put_begun_swap(root(), 0x22, 0x33);
        fs::last_write_time(live("EP_TBL"), fs::file_time_type::min());
    }
};

TEST_F(one_key_repair_that_is_older, than_a_live_file_starts_over) {
    EXPECT_EQ(repair(), 0);
    EXPECT_TRUE(log_.has("/@EP_FIX is older than the live files: rebuilding again"));
    EXPECT_NE(text_.find("TARN_INFO: REPLAY volume"), std::string::npos);
    EXPECT_EQ(tbl_word_of(live("EP_TBL"), 1), 0x8001);
    EXPECT_EQ(uuid_in(live("EP_TBL")), uuid_of(0x11));
    EXPECT_FALSE(file_exists(root() + "/@EP_FIX"));
}

static bool marker_was_there;

static io_verdict look_for_the_marker(io_call call, size_t wanted) {
    if (call == io_call::spawn) {  // the first program is /bin/rm
        marker_was_there =
            marker_was_there || file_exists(std::string(opt_ctx.volpath) + "/@EP_FIX/swap");
    }
    return {0, wanted};
}

// A removal that is cut must not leave a marker without its files: no later run could act on it.
TEST_F(one_key_repair_that_is_older, than_a_live_file_removes_its_marker_before_its_files) {
    marker_was_there = false;
    io_fault = look_for_the_marker;
    EXPECT_EQ(repair(), 0);
    io_fault = nullptr;
    EXPECT_FALSE(marker_was_there);
}

TEST_F(one_key_repair_that_is_older, than_a_live_file_removes_nothing_while_its_marker_stays) {
    const io_fault_at fault(1, EIO, {io_call::unlink});
    EXPECT_EQ(repair(), -1);
    EXPECT_TRUE(fault.fired());
    EXPECT_EQ(log_.lines().size(), 2u);
    EXPECT_TRUE(log_.has("Fail to remove " + root() + "/@EP_FIX/swap: Input/output error"));
    EXPECT_TRUE(file_exists(root() + "/@EP_FIX/EP_TBL"));
}

TEST_F(one_key_repair_of_a_volume, removes_a_work_directory_without_a_marker_and_fails) {
    make_empty_file(root() + "/@EP_FIX/EP_TBL");
    make_empty_file(root() + "/@EP_FIX/swap");
    EXPECT_EQ(repair(), -1);
    EXPECT_FALSE(file_exists(root() + "/@EP_FIX"));
    EXPECT_EQ(tbl_word_of(live("EP_TBL"), 1), 0x8009);
    EXPECT_EQ(repair(), 0);
}

TEST_F(one_key_repair_of_a_volume, touches_nothing_if_it_cannot_look_for_a_marker) {
    make_empty_file(root() + "/@EP_FIX/EP_TBL");
    const io_fault_at fault(1, EIO, {io_call::stat});
    EXPECT_EQ(repair(), -1);
    EXPECT_EQ(text_, "");
    EXPECT_EQ(log_.lines(), log_lines({"ERR: one_key_repair(#) Fail to get the status of " +
                                       root() + "/@EP_FIX: Input/output error\n"}));
    EXPECT_TRUE(file_exists(root() + "/@EP_FIX/EP_TBL"));
}

TEST_F(one_key_repair_of_a_volume, leaves_the_finished_files_if_a_step_of_the_swap_fails) {
    make_directories(live("EP_FRI.bkp/deep"));
    EXPECT_EQ(repair(), -1);
    EXPECT_TRUE(file_exists(root() + "/@EP_FIX/swap"));
    EXPECT_TRUE(file_exists(root() + "/@EP_FIX/EP_FRI"));
    fs::remove_all(live("EP_FRI.bkp"));
    EXPECT_EQ(repair(), 0);
    EXPECT_EQ(fri_word_of(live("EP_FRI"), 0), 0x8fff000000000001);
    EXPECT_EQ(tbl_word_of(live("EP_TBL.bkp"), 1), 0x8009);
}

static constexpr const char* NOT_REPLAYED = "ERR: one_key_repair(#) the journal was not replayed";

TEST_F(one_key_repair_of_a_volume, logs_at_its_end_that_the_journal_was_not_replayed) {
    make_empty_file(volumes_.journal());
    EXPECT_EQ(repair(), 0);
    EXPECT_EQ(log_.last(), NOT_REPLAYED + (" into " + root()) + "\n");
    EXPECT_EQ(log_.count(NOT_REPLAYED), 1u);
    make_filled_map(map(), 63, 0, {{0, 1}});  // the rebuild fails as well
    log_.clear();
    EXPECT_EQ(repair(), -1);
    EXPECT_EQ(log_.last(), NOT_REPLAYED + (" into " + root()) + "\n");
}

TEST_F(one_key_repair_of_a_volume, logs_nothing_about_a_missing_or_replayed_journal) {
    EXPECT_EQ(repair(), 0);
    EXPECT_FALSE(log_.has(NOT_REPLAYED));
    make_jnl(volumes_.journal(), 0, {tbl_block(uuid_of(0x11), 9, 0x8001)});
    EXPECT_EQ(repair(), 0);
    EXPECT_FALSE(log_.has(NOT_REPLAYED));
}

TEST_F(one_key_check, of_no_volume_passes) {
    fs::remove_all(root() + "/@EP");
    EXPECT_EQ(check(), 0);
}

TEST_F(one_key_check, passes_when_table_and_maps_agree_and_removes_its_directory) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    EXPECT_EQ(check(), 0);
    EXPECT_TRUE(printed("TARN_INFO: import volume " + root() + "\n"));
    EXPECT_TRUE(printed("TARN_INFO: mapped_cnt matched: (1), on-disk(1)\n"));
    EXPECT_TRUE(printed("TARN_INFO: CHECK FRI " + live("EP_FRI") + " TBL " + live("EP_TBL") +
                        " Free-List CONSISTENCY\n"));
    EXPECT_TRUE(text_.ends_with("TARN_INFO: FreeList IS CONSISTENT\n"));
    EXPECT_FALSE(file_exists(root() + "/@EP_CHK"));
}

TEST_F(one_key_check, fails_on_a_wrong_table_and_removes_its_directory) {
    EXPECT_EQ(check(), -1);
    EXPECT_TRUE(log_.has("TBL: refer-cnt mismatch, lpa(1), (old, new)=(9, 1)\n"));
    EXPECT_FALSE(file_exists(root() + "/@EP_CHK"));
}

static uint64_t reads_of_the_map;

// The import has a table open in addition to the map, the check only the map. Its first read is
// the header.
static io_verdict fail_nodes_of_the_check(io_call call, size_t wanted) {
    const bool counts = call == io_call::read && current_map.fd != 0 && current_tbl.fd == 0;
    return {counts && ++reads_of_the_map > 1 ? EIO : 0, wanted};
}

TEST_F(one_key_check, fails_on_a_map_that_cannot_be_scanned) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    reads_of_the_map = 0;
    io_fault = fail_nodes_of_the_check;
    EXPECT_EQ(check(), -1);
    io_fault = nullptr;
    EXPECT_EQ(log_.last(), "ERR: one_key_check_all_vol(#) do_check_map error(-1)\n");
    EXPECT_TRUE(printed("TARN_INFO: Try to check 1 data-node\n"));
    EXPECT_FALSE(printed("Free-List CONSISTENCY"));
}

TEST_F(one_key_check, reports_an_inconsistent_free_list_and_passes) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    set_fri_word(live("EP_FRI"), 0, 0x8005000000000000);  // five free extents from extent 0 on
    EXPECT_EQ(check(), 0);
    EXPECT_TRUE(log_.has("ERR: one_key_check_all_vol(#) FreeList IS IN-CONSISTENT\n"));
    EXPECT_FALSE(printed("FreeList IS CONSISTENT"));
}

TEST_F(one_key_check, goes_through_every_volume_and_stops_at_the_first_bad_one) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    make_volume(2);
    EXPECT_EQ(check(), -1);
    EXPECT_TRUE(printed("TARN_INFO: import volume " + root(1) + "\n"));
    EXPECT_TRUE(printed("TARN_INFO: import volume " + root(2) + "\n"));
    set_tbl_word(live("EP_TBL", 2), 1, 0x8001);
    EXPECT_EQ(check(), 0);
}

TEST_F(one_key_check, reads_its_options_when_the_first_replay_scans_them) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    make_filled_map(map(), 63, 5, {{0, 1}});
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(mapped_count_of(map()), 5u);
    EXPECT_EQ(check({"--repair"}), 0);
    EXPECT_EQ(mapped_count_of(map()), 1u);
}

TEST_F(one_key_check, ignores_an_option_that_names_another_volume) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    EXPECT_EQ(check({"--volpath", "/nowhere"}), 0);
    EXPECT_TRUE(printed("TARN_INFO: import volume " + root() + "\n"));
}

TEST_F(one_key_check, fails_without_a_live_index) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    unlink(live("EP_FRI").c_str());
    EXPECT_EQ(check(), -1);
    EXPECT_TRUE(log_.has("ERR: one_key_check_all_vol(#) Fail to load FRI " + live("EP_FRI")));
}

// The first volume's replay reads the option; the second volume starts at the configured journal
// again.
TEST_F(one_key_check, uses_the_configured_journal_again_for_every_volume) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    make_volume(2);
    set_tbl_word(live("EP_TBL", 2), 1, 0x8001);
    EXPECT_EQ(check({"--jnlpath", "/nowhere/EP_JNL"}), 0);
    const std::string fails = "Fail to load JNL ";
    EXPECT_TRUE(log_.has(fails + "/nowhere/EP_JNL\n"));
    EXPECT_TRUE(log_.has(fails + volumes_.journal() + "\n"));
}

TEST_F(one_key_check, checks_no_map_of_a_volume_whose_table_is_wrong) {
    EXPECT_EQ(check(), -1);
    EXPECT_FALSE(printed("data-node"));
    EXPECT_FALSE(printed("Free-List CONSISTENCY"));
}

TEST_F(one_key_check, scans_each_map_according_to_its_kind) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    set_tbl_word(live("EP_TBL"), 2, 0x8001);
    make_filled_map(live("EP_BUF"), 63, 1, {{0, 2}, {5, 3}});  // ends at its first unmapped entry
    EXPECT_EQ(check(), 0);
    EXPECT_TRUE(printed("TARN_INFO: mapped_cnt matched: (1), on-disk(1)\n"));
    EXPECT_FALSE(printed("mismatched"));
}
