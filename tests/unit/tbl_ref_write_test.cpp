#include "tbl/tbl_ref_write.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>

#include "store/keep_journal.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/io_outage.h"
#include "support/log_capture.h"
#include "support/pool_files.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "tbl/tbl_file.h"

// References that are counted for the current table, in one window.
class ref_write : public testing::Test {
protected:
    ref_write() { EXPECT_TRUE(ref_counts_begin_scan(counts_)); }
    ~ref_write() override {
        ref_counts_close(counts_);
        keep_journal_forget();
    }
    void add(uint64_t lpa, unsigned times = 1) {
        for (unsigned i = 0; i < times; i++) {
            ASSERT_TRUE(ref_counts_add(counts_, lpa));
        }
    }
    ref_write_result write(bool is_new = true, linked_groups* linked = nullptr) {
        ref_counts_end_scan(counts_);
        return write_ref_counts(counts_, {current_tbl.fd, is_new, is_new, linked, false});
    }
    bool is_hole(uint64_t block) const {
        return pool_.tbl_file.bytes(1048576 + block * 512, 512) == std::vector<uint8_t>(512);
    }

    pool_files pool_;
    log_capture log_;
    ref_counts* counts_ = ref_counts_open();
};

// Group 0 is in blocks 0 to 16, group 1 in 16 to 32, group 2 begins in block 32.
TEST_F(ref_write, puts_the_counts_into_the_blocks_that_have_one) {
    add(5);
    add(4095, 300);
    add(4096, 4095);
    add(9 * 4096 + 1, 2);
    const ref_write_result result = write();
    EXPECT_FALSE(result.failed);
    EXPECT_FALSE(result.past_max);
    EXPECT_EQ(result.first_uses, 4u);
    EXPECT_EQ(pool_.tbl(5), 0x8001);
    EXPECT_EQ(pool_.tbl(4095), 0x8000 + 300);
    EXPECT_EQ(pool_.tbl(4096), 0x8fff);
    EXPECT_EQ(pool_.tbl(9 * 4096 + 1), 0x8002);
    EXPECT_EQ(pool_.tbl(6), 0);
    EXPECT_TRUE(is_hole(1));
    EXPECT_TRUE(is_hole(15));
    EXPECT_FALSE(is_hole(16));
    EXPECT_TRUE(is_hole(17));
    EXPECT_EQ(log_.lines(), log_lines({}));
}

static struct {
    uint64_t writes;
    uint64_t bytes;
    uint64_t reads;
} moved;

static io_verdict count_transfers(io_call call, size_t wanted) {
    if (call == io_call::write) {
        moved.writes++;
        moved.bytes += wanted;
    }
    moved.reads += call == io_call::read ? 1 : 0;
    return {0, wanted};
}

// 40 groups are 163840 extents in 651 blocks; a transfer takes 512 blocks at the most.
TEST_F(ref_write, writes_every_block_once_and_reads_none_of_a_new_table) {
    for (uint64_t lpa = 0; lpa < 40 * 4096; lpa++) {
        add(lpa);
    }
    moved = {};
    {
        const fault_hook hook(count_transfers);
        EXPECT_EQ(write().first_uses, 163840u);
    }
    EXPECT_EQ(moved.bytes, 651u * 512);
    EXPECT_EQ(moved.writes, 2u);
    EXPECT_EQ(moved.reads, 0u);
    EXPECT_EQ(pool_.tbl(40 * 4096 - 1), 0x8001);
}

TEST_F(ref_write, adds_to_what_a_table_in_place_holds) {
    pool_.set_tbl(5, 0x8003);
    pool_.set_tbl(6, 0xE001);  // the bits that are not ours stay
    pool_.set_tbl(7, 0x1000);  // free, the tail of a list
    pool_.set_tbl(8, 0x8009);
    add(5, 2);
    add(6);
    add(7);
    const ref_write_result result = write(false);
    EXPECT_EQ(result.first_uses, 1u);
    EXPECT_EQ(pool_.tbl(5), 0x8005);
    EXPECT_EQ(pool_.tbl(6), 0xE002);
    EXPECT_EQ(pool_.tbl(7), 0x8001);
    EXPECT_EQ(pool_.tbl(8), 0x8009);
}

TEST_F(ref_write, says_before_it_writes_that_a_sum_is_past_4095) {
    pool_.set_tbl(5, 0x8000 + 4000);
    add(5, 96);
    ref_counts_end_scan(counts_);
    const ref_write_result looked =
        write_ref_counts(counts_, {current_tbl.fd, false, false, nullptr, true});
    EXPECT_TRUE(looked.past_max);
    EXPECT_EQ(pool_.tbl(5), 0x8000 + 4000);
}

// The free entries of a group, in ascending order; the last one is the tail.
TEST_F(ref_write, links_the_free_entries_and_keeps_a_row_for_each_group) {
    for (uint32_t offset = 0; offset < 4096; offset++) {
        if (offset != 3 && offset != 4000) {
            add(offset);
        }
        add(4096 + offset);
    }
    add(2 * 4096);
    linked_group rows[2];
    linked_groups linked = {rows, 0, 2};
    EXPECT_EQ(write(true, &linked).first_uses, 4094u + 4096 + 1);
    EXPECT_EQ(pool_.tbl(3), 4000);
    EXPECT_EQ(pool_.tbl(4000), 0x1000);
    EXPECT_EQ(pool_.tbl(2 * 4096 + 1), 2);
    EXPECT_EQ(pool_.tbl(3 * 4096 - 1), 0x1000);
    EXPECT_EQ(linked.count, 2u);  // there is no room for a third
    EXPECT_EQ(rows[0].head, 3);
    EXPECT_EQ(rows[0].free_count, 2);
    EXPECT_EQ(rows[1].group, 1u);
    EXPECT_EQ(rows[1].head, 0);
    EXPECT_EQ(rows[1].free_count, 0);
}

TEST_F(ref_write, whichever_transfer_fails_once_nothing_is_lost) {
    for (const bool is_new : {true, false}) {
        for (uint64_t n = 1;; n++) {
            ASSERT_LT(n, 100u);
            pool_.fill_group(0, 0);
            pool_.fill_group(1, 0);
            ref_counts_restart(counts_);
            ASSERT_TRUE(ref_counts_begin_scan(counts_));
            add(5, 3);
            add(4096 + 9);
            const io_fault_at fault(n, EIO, {io_call::read, io_call::write});
            const ref_write_result result = write(is_new);
            EXPECT_FALSE(result.failed && result.failed_group > 1) << n;
            if (!result.failed) {
                EXPECT_EQ(pool_.tbl(5), 0x8003) << n;
                EXPECT_EQ(pool_.tbl(4096 + 9), 0x8001) << n;
            }
            if (!fault.fired()) {
                EXPECT_FALSE(result.failed);
                break;
            }
        }
    }
}

TEST_F(ref_write, the_first_entry_that_cannot_be_written_ends_it) {
    add(3 * 4096);
    add(4096 + 9);
    add(4096 + 8);
    const io_outage outage(io_call::write);
    const ref_write_result result = write();
    EXPECT_TRUE(result.failed);
    EXPECT_EQ(result.failed_group, 1u);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: tbl_entry_write(#) write tbl error, lpa 4104\n"}));
    EXPECT_EQ(keep_journal_failures().count, 1u);
}

// What was counted beside another table. Extents 7 and 8192 have one reference each, extent 8193
// has 300.
class ref_compare : public ref_write {
protected:
    ref_compare() {
        add(7);
        add(8192);
        add(8193, 300);
        ref_counts_end_scan(counts_);
        set(7, 0x8001);
        set(8192, 0x8001);
        set(8193, 0x8000 + 300);
    }
    void set(uint64_t lpa, uint16_t word) { set_tbl_word(other_.path(), lpa, word); }
    bool agree() { return ref_counts_agree(counts_, other_.fd()); }

    scratch_file other_{TBL_FILE_SIZE};
};

TEST_F(ref_compare, agree_with_a_table_that_says_the_same) {
    EXPECT_TRUE(agree());
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(ref_compare, ignore_links_tails_and_reserved_bits) {
    set(9, 0x1004);     // free, the tail of a list
    set(4096, 0x0fff);  // free, in a group without a reference
    set(8192, 0xf001);  // used, with every bit that says nothing of its references
    EXPECT_TRUE(agree());
}

TEST_F(ref_compare, see_each_difference) {
    struct change {
        uint64_t lpa;
        uint16_t word;
    };
    for (const change& wrong :
         {change{7, 0x8002}, change{7, 0x0001}, change{6, 0x8001}, change{6, 0x8000},
          change{4095, 0x8001}, change{4096, 0x8001}, change{8191, 0x8001}, change{8192, 0},
          change{8193, 0x8000 + 299}, change{8193, 0x8000 + 301}, change{8194, 0x8000},
          change{3 * 4096 - 1, 0x8001}}) {
        const uint16_t right = tbl_word_of(other_.path(), wrong.lpa);
        set(wrong.lpa, wrong.word);
        EXPECT_FALSE(agree()) << wrong.lpa << " " << wrong.word;
        set(wrong.lpa, right);
        EXPECT_TRUE(agree()) << wrong.lpa;
    }
}

TEST_F(ref_compare, look_no_further_than_the_highest_group_with_a_reference) {
    set(3 * 4096, 0x8001);
    EXPECT_TRUE(agree());
}

TEST_F(ref_compare, do_not_agree_with_what_cannot_be_read) {
    const io_fault_at fault(1, EIO, {io_call::read});
    EXPECT_FALSE(agree());
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(ref_compare, want_regions_without_a_reference_to_be_free) {
    constexpr uint64_t GROUPS = 5 * REF_REGION_GROUPS;
    EXPECT_TRUE(unmet_regions_are_free(counts_, other_.fd(), GROUPS));
    set(uint64_t{4} << 20 | 9, 0x1002);  // free, linked
    EXPECT_TRUE(unmet_regions_are_free(counts_, other_.fd(), GROUPS));
    set((uint64_t{5} << 20) - 1, 0x8001);
    EXPECT_FALSE(unmet_regions_are_free(counts_, other_.fd(), GROUPS));
    EXPECT_TRUE(unmet_regions_are_free(counts_, other_.fd(), GROUPS - 1));
    set(6, 0x8001);  // in a region with references: not looked at here
    EXPECT_TRUE(unmet_regions_are_free(counts_, other_.fd(), GROUPS - 1));
}
