#include "volume/full_check.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "cli/operations.h"
#include "options.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"

// A live table and a rebuilt one of two groups, all free.
class full_check : public testing::Test {
protected:
    full_check() {
        make_sample_volume(root(), 0x11);
        make_directories(root() + "/@EP_CHK");
        make_tbl(rebuilt(), uuid_of(0x11));
        make_fri(index(), uuid_of(0x11), 0);
        set_group_count(2);
        snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", root().c_str());
    }

    std::string root() const { return volumes_.volume(1); }
    std::string live() const { return root() + "/@EP/EP_TBL"; }
    std::string rebuilt() const { return root() + "/@EP_CHK/EP_TBL"; }
    std::string index() const { return root() + "/@EP_CHK/EP_FRI"; }
    void set_group_count(uint64_t count) const { set_header_u64(index(), 64, 72, count); }

    sample_volumes volumes_;
    log_capture log_;
};

TEST_F(full_check, tables_that_say_the_same_pass) {
    set_tbl_word(live(), 8191, 0x8003);
    set_tbl_word(rebuilt(), 8191, 0x8003);
    EXPECT_EQ(do_check_full_tbl_consistent(), 0);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(full_check, free_entries_are_equal_whatever_their_links) {
    set_tbl_word(live(), 0, 0x0001);
    set_tbl_word(live(), 1, 0x1000);
    set_tbl_word(rebuilt(), 1, 0x0fff);
    EXPECT_EQ(do_check_full_tbl_consistent(), 0);
}

TEST_F(full_check, an_extent_in_use_that_no_map_refers_to_fails) {
    set_tbl_word(live(), 4100, 0x8001);
    EXPECT_EQ(do_check_full_tbl_consistent(), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: do_check_full_tbl_consistent(#) TBL: used bit "
                                       "mismatch, lpa(4100), (old, new)=(1, 0)\n"}));
}

TEST_F(full_check, a_free_extent_that_a_map_refers_to_fails) {
    set_tbl_word(rebuilt(), 4100, 0x8001);
    EXPECT_EQ(do_check_full_tbl_consistent(), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: do_check_full_tbl_consistent(#) TBL: used bit "
                                       "mismatch, lpa(4100), (old, new)=(0, 1)\n"}));
}

TEST_F(full_check, the_first_wrong_reference_count_ends_it) {
    set_tbl_word(live(), 7, 0x8002);
    set_tbl_word(rebuilt(), 7, 0x8005);
    set_tbl_word(live(), 9, 0x8001);
    EXPECT_EQ(do_check_full_tbl_consistent(), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: do_check_full_tbl_consistent(#) TBL: refer-cnt "
                                       "mismatch, lpa(7), (old, new)=(2, 5)\n"}));
}

TEST_F(full_check, the_groups_behind_the_highest_one_of_the_maps_are_not_looked_at) {
    set_group_count(1);
    set_tbl_word(live(), 4096, 0x8001);
    EXPECT_EQ(do_check_full_tbl_consistent(), 0);
    set_group_count(0);
    set_tbl_word(live(), 0, 0x8001);
    EXPECT_EQ(do_check_full_tbl_consistent(), 0);
}

TEST_F(full_check, a_group_count_that_no_index_holds_fails) {
    set_group_count(~uint64_t{0});
    EXPECT_EQ(do_check_full_tbl_consistent(), -1);
    EXPECT_TRUE(log_.has("group count 18446744073709551615 is more than an index holds"));
}

TEST_F(full_check, names_each_file_that_does_not_load) {
    unlink(index().c_str());
    EXPECT_EQ(do_check_full_tbl_consistent(), -1);
    EXPECT_TRUE(log_.has("Fail to load FRI (" + index() + ")\n"));
    unlink(rebuilt().c_str());
    EXPECT_EQ(do_check_full_tbl_consistent(), -1);
    EXPECT_TRUE(log_.has("Fail to load TBL (" + rebuilt() + ")\n"));
    unlink(live().c_str());
    EXPECT_EQ(do_check_full_tbl_consistent(), -1);
    EXPECT_TRUE(log_.has("Fail to load TBL (" + live() + ")\n"));
}

TEST_F(full_check, an_entry_that_cannot_be_read_fails) {
    const single_entry_path path;
    set_tbl_word(live(), 8191, 0x8003);
    set_tbl_word(rebuilt(), 8191, 0x8003);
    uint64_t reads = 0;
    {
        const io_fault_at count(0, 0, {io_call::read});
        EXPECT_EQ(do_check_full_tbl_consistent(), 0);
        reads = count.calls();
    }
    {
        const io_fault_at fault(reads - 1, EIO, {io_call::read});
        EXPECT_EQ(do_check_full_tbl_consistent(), -1);
        EXPECT_TRUE(log_.has("old tbl_handle_entry_read error lpa(8191)\n"));
    }
    const io_fault_at fault(reads, EIO, {io_call::read});
    EXPECT_EQ(do_check_full_tbl_consistent(), -1);
    EXPECT_TRUE(log_.has("new tbl_handle_entry_read error lpa(8191)\n"));
}

class full_check_command : public full_check {
protected:
    full_check_command() {
        std::filesystem::remove_all(root() + "/@EP_CHK");
        make_filled_map(root() + "/@iSCSITrg/LUN_Extent_1", 63, 1, {{0, 5}});
    }
};

TEST_F(full_check_command, removes_its_directory_when_the_table_is_right) {
    set_tbl_word(live(), 5, 0x8001);
    stdout_capture out;
    EXPECT_EQ(check_full_volume(), 0);
    EXPECT_FALSE(file_exists(root() + "/@EP_CHK"));
    EXPECT_EQ(check_full_volume(), 0);
}

TEST_F(full_check_command, leaves_its_directory_behind_after_a_mismatch) {
    stdout_capture out;
    EXPECT_EQ(check_full_volume(), -1);
    EXPECT_TRUE(log_.has("TBL: used bit mismatch, lpa(5), (old, new)=(0, 1)\n"));
    EXPECT_TRUE(file_exists(rebuilt()));
}

TEST_F(full_check_command, leaves_the_rebuilt_entries_for_inspection) {
    stdout_capture out;
    EXPECT_EQ(check_full_volume(), -1);
    EXPECT_EQ(tbl_word_of(rebuilt(), 5), 0x8001);
}

// The comparison in memory knows nothing of an entry that was counted in the rebuilt table alone.
TEST_F(full_check_command, sees_a_mismatch_whichever_bulk_transfer_fails) {
    bool fired = true;
    for (uint64_t n = 1; fired; n++) {
        stdout_capture out;
        const io_fault_at fault(n, EIO, {io_call::bulk});
        EXPECT_EQ(check_full_volume(), -1) << n;
        std::filesystem::remove_all(root() + "/@EP_CHK");
        fired = fault.fired();
    }
    EXPECT_EQ(log_.count("TBL: used bit mismatch, lpa(5), (old, new)=(0, 1)\n"),
              log_.lines().size());
}

// The map refers to groups 0 and 3: what lies between counts, what lies beyond does not.
TEST_F(full_check_command, looks_at_groups_that_no_map_refers_to_up_to_the_highest_one) {
    make_filled_map(root() + "/@iSCSITrg/LUN_Extent_1", 63, 2, {{0, 5}, {1, 3 * 4096}});
    set_tbl_word(live(), 5, 0x8001);
    set_tbl_word(live(), 3 * 4096, 0x8001);
    set_tbl_word(live(), 4 * 4096, 0x8001);
    stdout_capture out;
    EXPECT_EQ(check_full_volume(), 0);
    set_tbl_word(live(), 2 * 4096 - 1, 0x8001);
    EXPECT_EQ(check_full_volume(), -1);
    EXPECT_TRUE(log_.has("TBL: used bit mismatch, lpa(8191), (old, new)=(1, 0)\n"));
}

TEST_F(full_check_command, holds_counts_exactly_where_a_byte_does_not) {
    for (const uint64_t references : {252, 253, 254, 255, 256, 257, 600}) {
        std::vector<sample_entry> entries;
        for (uint64_t lea = 0; lea < references; lea++) {
            entries.push_back({lea, 5});
        }
        make_filled_map(root() + "/@iSCSITrg/LUN_Extent_1", 630, references, entries);
        stdout_capture out;
        for (const int off_by : {0, 1, -1}) {
            set_tbl_word(live(), 5,
                         static_cast<uint16_t>(0x8000 + static_cast<int>(references) + off_by));
            EXPECT_EQ(check_full_volume(), off_by == 0 ? 0 : -1) << references << " " << off_by;
            std::filesystem::remove_all(root() + "/@EP_CHK");
        }
    }
}

TEST_F(full_check_command, leaves_its_directory_behind_after_a_failed_rebuild) {
    make_filled_map(root() + "/@iSCSITrg/LUN_Extent_1", 63, 0, {{0, 5}});
    stdout_capture out;
    EXPECT_EQ(check_full_volume(), -1);
    EXPECT_TRUE(log_.has("mapped_cnt is wrong"));
    EXPECT_TRUE(file_exists(rebuilt()));
}

TEST_F(full_check_command, leaves_what_was_counted_before_a_failure_also_where_the_table_agrees) {
    set_tbl_word(live(), 5, 0x8001);
    make_filled_map(root() + "/@EP/EP_BUF", 100, 1, {{0, 5}});
    write_file_bytes(root() + "/@EP/EP_BUF", 10, "x", 1);
    stdout_capture out;
    EXPECT_EQ(check_full_volume(), -1);
    EXPECT_TRUE(log_.has("Fail to load MAP " + root() + "/@EP/EP_BUF\n"));
    EXPECT_EQ(tbl_word_of(rebuilt(), 5), 0x8001);
}

// Table and maps agree. Opened last: the live table, the rebuilt one, the rebuilt index.
TEST_F(full_check_command, leaves_what_was_counted_where_a_file_does_not_open_again) {
    set_tbl_word(live(), 5, 0x8001);
    uint64_t opens = 0;
    {
        stdout_capture out;
        const io_fault_at count(0, 0, {io_call::open});
        EXPECT_EQ(check_full_volume(), 0);
        opens = count.calls();
    }
    const std::vector<std::string> lines = {"Fail to load TBL (" + live() + ")\n",
                                            "Fail to load TBL (" + rebuilt() + ")\n",
                                            "Fail to load FRI (" + index() + ")\n"};
    for (uint64_t i = 0; i < lines.size(); i++) {
        log_.clear();
        stdout_capture out;
        const io_fault_at fault(opens - 2 + i, EMFILE, {io_call::open});
        EXPECT_EQ(check_full_volume(), -1);
        EXPECT_TRUE(log_.has("ERR: do_check_full_tbl_consistent(#) " + lines[i]));
        EXPECT_NE(out.text().find("TARN_INFO: Rebuild EP_FRI"), std::string::npos);
        EXPECT_EQ(tbl_word_of(rebuilt(), 5), 0x8001) << i;
        std::filesystem::remove_all(root() + "/@EP_CHK");
    }
}

TEST_F(full_check_command, of_a_volume_without_references_succeeds_at_once) {
    std::filesystem::remove(root() + "/@iSCSITrg/LUN_Extent_1");
    stdout_capture out;
    EXPECT_EQ(check_full_volume(), 0);
    EXPECT_FALSE(file_exists(root() + "/@EP_CHK"));
}
