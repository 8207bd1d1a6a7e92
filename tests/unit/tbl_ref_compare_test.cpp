#include "tbl/tbl_ref_compare.h"

#include <gtest/gtest.h>

#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/pool_files.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "tbl/tbl_file.h"

static int touch(uint64_t) {
    return 0;
}

// What was counted for the current table, beside another table on disk. Extents 7 and 8192 have one
// reference each, extent 8193 has 300.
class ref_compare : public testing::Test {
protected:
    ref_compare() {
        add(7, 1);
        add(8192, 1);
        add(8193, 300);
        set(7, 0x8001);
        set(8192, 0x8001);
        set(8193, 0x8000 + 300);
    }
    ~ref_compare() override { tbl_ref_counts_drop(counts_); }

    void add(uint64_t lpa, unsigned times) {
        for (unsigned i = 0; i < times; i++) {
            ASSERT_EQ(tbl_ref_counts_add(counts_, lpa, 0, &first_uses_), ref_result::counted);
        }
    }
    void set(uint64_t lpa, uint16_t word) { set_tbl_word(other_.path(), lpa, word); }
    bool agree(uint64_t groups = 3) { return tbl_ref_counts_agree(counts_, other_.fd(), groups); }

    pool_files pool_;
    log_capture log_;
    scratch_file other_{TBL_FILE_SIZE};
    tbl_ref_counts* counts_ = tbl_ref_counts_open(touch);
    uint64_t first_uses_ = 0;
};

TEST_F(ref_compare, agree_with_a_table_that_says_the_same) {
    EXPECT_TRUE(agree());
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(ref_compare, take_links_tails_and_unnamed_bits_for_nothing) {
    set(9, 0x1004);     // free, the tail of a list
    set(4096, 0x0fff);  // free, in a group that nothing refers to
    set(8192, 0xf001);  // used, with every bit that says nothing of its references
    EXPECT_TRUE(agree());
}

TEST_F(ref_compare, do_not_agree_once_an_entry_was_left_to_the_single_entry_path) {
    {
        const single_entry_path path;
        EXPECT_EQ(tbl_ref_counts_add(counts_, 4 * 4096, 0, &first_uses_), ref_result::no_entry);
    }
    EXPECT_FALSE(agree());
}

TEST_F(ref_compare, see_each_difference) {
    struct change {
        uint64_t lpa;
        uint16_t word;
    };
    for (const change& wrong :
         {change{7, 0x8002}, change{7, 0x0001}, change{6, 0x8001}, change{6, 0x8000},
          change{4095, 0x8001}, change{4096, 0x8001}, change{8191, 0x8001}, change{8192, 0},
          change{8193, 0x8000 + 299}, change{8193, 0x8000 + 301}, change{8194, 0x8000}}) {
        const uint16_t right = tbl_word_of(other_.path(), wrong.lpa);
        set(wrong.lpa, wrong.word);
        EXPECT_FALSE(agree()) << wrong.lpa << " " << wrong.word;
        set(wrong.lpa, right);
        EXPECT_TRUE(agree()) << wrong.lpa;
    }
}

TEST_F(ref_compare, look_no_further_than_the_groups_they_are_asked_for) {
    set(3 * 4096, 0x8001);
    EXPECT_TRUE(agree(3));
    EXPECT_FALSE(agree(4));
    set(8193, 0);
    EXPECT_TRUE(agree(2));
    EXPECT_TRUE(agree(1));
    EXPECT_TRUE(agree(0));
}

TEST_F(ref_compare, do_not_agree_with_what_cannot_be_read) {
    for (uint64_t n = 1; n <= 2; n++) {
        const io_fault_at fault(n, EIO, {io_call::read});
        EXPECT_FALSE(agree()) << n;
    }
    EXPECT_EQ(log_.lines(), log_lines({}));
}

// What was written is no longer in memory, where it would pass for nothing.
TEST_F(ref_compare, do_not_agree_once_some_of_them_were_written) {
    for (uint64_t group = 0; group <= REF_UNITS; group++) {
        const uint64_t lpa = (REF_NEAR_GROUPS + group) * TBL_GROUP_ENTRIES;
        add(lpa, 1);
    }
    ASSERT_EQ(pool_.tbl(8193), 0x8000 + 300);  // the memory was full
    for (const uint64_t lpa : {7, 8192, 8193}) {
        set(lpa, 0);
    }
    EXPECT_FALSE(agree());
}
