#include "tbl/tbl_compare.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/scratch_file.h"

static constexpr uint64_t ENTRIES = 0x1F800000000;  // of a whole table
static constexpr uint64_t TABLE_SIZE = 0x40000100000;

static void set_word(scratch_file* table, uint64_t lpa, uint16_t word) {
    table->write_at(((lpa / 252 + 2048) * 256 + lpa % 252) * 2, word);
}

class tbl_compare : public testing::Test {
protected:
    void set_both(uint64_t lpa, uint16_t word) {
        set_word(&one_, lpa, word);
        set_word(&other_, lpa, word);
    }
    uint64_t agree_up_to(uint64_t lpa, uint64_t end) const {
        const uint64_t agreed = tbl_agree_up_to(one_.fd(), other_.fd(), lpa, end);
        EXPECT_EQ(agreed, tbl_agree_up_to(other_.fd(), one_.fd(), lpa, end));
        return agreed;
    }

    scratch_file one_{TABLE_SIZE};
    scratch_file other_{TABLE_SIZE};
    log_capture log_;
};

TEST_F(tbl_compare, tables_never_written_agree_to_the_end_without_being_read) {
    const io_fault_at reads(0, 0, {io_call::read});
    EXPECT_EQ(agree_up_to(0, ENTRIES), ENTRIES);
    EXPECT_EQ(reads.calls(), 0u);
}

TEST_F(tbl_compare, data_far_away_in_one_of_them_is_found) {
    set_word(&other_, ENTRIES - 1, 0x8001);
    EXPECT_EQ(agree_up_to(0, ENTRIES), ENTRIES - 1);
    EXPECT_EQ(agree_up_to(0, ENTRIES - 1), ENTRIES - 1);
    set_word(&one_, 252 * 1000000 + 17, 0x8001);
    const io_fault_at reads(0, 0, {io_call::read});
    EXPECT_EQ(agree_up_to(252, ENTRIES), 252 * 1000000u + 17);
    EXPECT_LE(reads.calls(), 4u * 2);  // the holes before it were not
}

TEST_F(tbl_compare, stops_at_the_first_entry_that_differs) {
    set_both(3, 0x8001);
    set_both(251, 0x8002);
    set_word(&one_, 600, 0x8001);
    set_word(&other_, 600, 0x8002);
    set_word(&one_, 599, 0x8001);
    set_word(&other_, 601, 0x8001);
    EXPECT_EQ(agree_up_to(0, 4096), 599u);
    set_word(&other_, 599, 0x8001);
    EXPECT_EQ(agree_up_to(252, 4096), 600u);
    set_word(&other_, 600, 0x8001);
    EXPECT_EQ(agree_up_to(504, 4096), 601u);
    set_word(&one_, 601, 0x8001);
    EXPECT_EQ(agree_up_to(0, 4096), 4096u);
}

TEST_F(tbl_compare, free_entries_agree_whatever_else_they_hold) {
    set_word(&one_, 5, 0x7fff);
    set_word(&one_, 6, 0x1000);
    set_word(&other_, 6, 0x0123);
    EXPECT_EQ(agree_up_to(0, 4096), 4096u);
    set_word(&one_, 6, 0x9000);  // in use, without a reference
    EXPECT_EQ(agree_up_to(0, 4096), 6u);
}

TEST_F(tbl_compare, used_entries_agree_when_their_references_do) {
    set_word(&one_, 5, 0xf234);  // tail bit and foreign bits do not count
    set_word(&other_, 5, 0x8234);
    EXPECT_EQ(agree_up_to(0, 4096), 4096u);
    set_word(&one_, 5, 0x8a34);  // the highest bit of the count does
    EXPECT_EQ(agree_up_to(0, 4096), 5u);
}

TEST_F(tbl_compare, foreign_bytes_and_checksums_do_not_count) {
    set_both(5, 0x8001);
    one_.write_at(1048576 + 504, uint64_t{0x1234567890abcdef});
    EXPECT_EQ(agree_up_to(0, 4096), 4096u);
}

TEST_F(tbl_compare, what_stands_behind_the_end_does_not_count) {
    set_word(&one_, 300, 0x8001);  // in the block of the end, after it
    EXPECT_EQ(agree_up_to(0, 300), 300u);
    EXPECT_EQ(agree_up_to(0, 301), 300u);
    EXPECT_EQ(agree_up_to(0, 0), 0u);
}

// More blocks than one transfer takes, all with data, the difference in the last one.
TEST_F(tbl_compare, long_stretches_are_compared_whole) {
    for (uint64_t block = 0; block < 1000; block++) {
        set_both(block * 252 + block % 252, 0x8001);
    }
    EXPECT_EQ(agree_up_to(0, 252000), 252000u);
    for (const uint64_t lpa : {uint64_t{0}, uint64_t{255 * 252 + 251}, uint64_t{256 * 252},
                               uint64_t{511 * 252 + 3}, uint64_t{251999}}) {
        const scratch_file& table = one_;
        const auto was = table.read_at<uint16_t>(((lpa / 252 + 2048) * 256 + lpa % 252) * 2);
        set_word(&one_, lpa, 0x8fff);
        EXPECT_EQ(agree_up_to(0, 252000), lpa);
        set_word(&one_, lpa, was);
    }
}

TEST_F(tbl_compare, a_shorter_table_is_free_behind_its_end) {
    scratch_file shorter(1048576 + 100);
    set_word(&one_, 700, 0x0fff);
    EXPECT_EQ(tbl_agree_up_to(one_.fd(), shorter.fd(), 0, 4096), 4096u);
    set_word(&one_, 700, 0x8001);
    EXPECT_EQ(tbl_agree_up_to(one_.fd(), shorter.fd(), 0, 4096), 700u);
    EXPECT_EQ(tbl_agree_up_to(shorter.fd(), one_.fd(), 0, 4096), 700u);
}

TEST_F(tbl_compare, inside_a_block_and_past_the_table_the_single_entry_path_is_taken) {
    EXPECT_EQ(agree_up_to(1, 4096), 1u);
    EXPECT_EQ(agree_up_to(251, 4096), 251u);
    EXPECT_EQ(agree_up_to(252, 4096), 4096u);
    EXPECT_EQ(agree_up_to(0, ENTRIES + 1), 0u);
    EXPECT_EQ(agree_up_to(0, ~uint64_t{0}), 0u);
    set_both(5, 0x8001);  // no hole
    const single_entry_path path;
    EXPECT_EQ(agree_up_to(0, 4096), 0u);
}

// What cannot be read is never taken for equal, and nothing is logged.
TEST_F(tbl_compare, stops_before_a_block_that_cannot_be_read) {
    for (uint64_t block = 0; block < 600; block++) {
        set_both(block * 252, 0x8001);
    }
    set_word(&one_, 599 * 252 + 9, 0x8001);
    uint64_t before = 0;
    for (uint64_t n = 1;; n++) {
        const io_fault_at fault(n, EIO);
        const uint64_t agreed = tbl_agree_up_to(one_.fd(), other_.fd(), 0, 600 * 252);
        ASSERT_LE(before, agreed);  // the later it fails, the farther it came
        before = agreed;
        if (!fault.fired()) {
            EXPECT_EQ(agreed, 599 * 252u + 9);
            EXPECT_EQ(fault.calls(), 6u);  // three runs of both tables
            break;
        }
        ASSERT_LT(agreed, 599 * 252u + 9);
        ASSERT_EQ(agreed % 252, 0u);
        ASSERT_TRUE(n > 1 || agreed == 0);
    }
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(tbl_compare, reads_that_move_a_part_are_continued) {
    for (uint64_t block = 0; block < 300; block++) {
        set_both(block * 252, 0x8001);
    }
    set_word(&one_, 299 * 252 + 9, 0x8001);
    for (uint64_t n = 1;; n++) {
        const io_fault_at fault(n, 0, {io_call::read});
        ASSERT_EQ(tbl_agree_up_to(one_.fd(), other_.fd(), 0, 300 * 252), 299 * 252u + 9);
        if (!fault.fired()) {
            break;
        }
    }
}
