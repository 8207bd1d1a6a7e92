#include "fri/fri_link.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "fri/fri_file.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/pool_files.h"
#include "support/roads.h"
#include "support/stdout_capture.h"

class fri_link : public testing::Test {
protected:
    // An initialised group, all used but the offsets named.
    void set_group(uint64_t group, const std::vector<uint16_t>& free_offsets) {
        pool_.set_fri(group, 0, 0, 0x8000);
        pool_.fill_group(group, 0x8001);
        for (const uint16_t offset : free_offsets) {
            pool_.set_tbl(group * 4096 + offset, 0);
        }
    }

    pool_files pool_;
};

TEST_F(fri_link, groups_are_recounted_and_those_with_free_extents_chained) {
    set_group(0, {});
    set_group(1, {10, 20});
    pool_.set_fri(1, 77, 0xFFF9, 0xCABC);  // wrong head and count; bit 14 stays
    pool_.set_fri(2, 99, 0x0FF3, 0x4005);  // a hole that was never initialised
    set_group(3, {});
    pool_.set_fri(3, 0x55, 0x0005, 0x8009);  // full: its link stays
    set_group(4, {4095});
    pool_.set_fri(5, 0x66, 0, 0x8001);  // not below the group count
    current_fri.header.fri_group_count = 5;
    log_capture log;
    stdout_capture out;

    EXPECT_EQ(tarn_link_fri_group(), 0);

    EXPECT_EQ(out.text(),
              "TARN_INFO: Processing 0/100\n"
              "TARN_INFO: Processing 20/100\n"
              "TARN_INFO: Processing 40/100\n"
              "TARN_INFO: Processing 60/100\n"
              "TARN_INFO: Processing 80/100\n");
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(pool_.fri(0), "00 00 00 00 00 00 00 80 ");
    EXPECT_EQ(pool_.fri(1), "02 00 00 00 a0 00 02 c0 ");  // next 2, head 10, count 2
    EXPECT_EQ(pool_.fri(2), "04 00 00 00 00 00 00 d0 ");  // next 4, head 0, count 4096
    EXPECT_EQ(pool_.fri(3), "55 00 00 00 05 00 00 80 ");
    EXPECT_EQ(pool_.fri(4), "05 00 00 00 f0 ff 01 80 ");  // next 5, head 4095, count 1
    EXPECT_EQ(pool_.fri(5), "66 00 00 00 00 00 01 80 ");
    EXPECT_EQ(pool_.tbl(4096 + 10), 20);
    EXPECT_EQ(pool_.tbl(4096 + 20), 0x1000);
    EXPECT_EQ(pool_.tbl(2 * 4096), 1);
    EXPECT_EQ(pool_.tbl(2 * 4096 + 4095), 0x1000);
    EXPECT_EQ(pool_.tbl(4 * 4096 + 4095), 0x1000);
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(72), 0x1F800000u);
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(4108), 1u);
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(4100), 1000000u);  // not recounted here
}

TEST_F(fri_link, an_index_without_groups_has_its_list_at_0) {
    current_fri.header.fri_group_head = 9;
    stdout_capture out;
    EXPECT_EQ(tarn_link_fri_group(), 0);
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(72), 0x1F800000u);
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(4108), 0u);
}

TEST_F(fri_link, a_full_last_group_leaves_the_link_of_the_last_listed_one) {
    set_group(0, {8});
    pool_.set_fri(0, 42, 0, 0x8000);
    set_group(1, {});
    current_fri.header.fri_group_count = 2;
    stdout_capture out;
    EXPECT_EQ(tarn_link_fri_group(), 0);
    EXPECT_EQ(pool_.fri(0), "2a 00 00 00 80 00 01 80 ");
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(4108), 0u);
}

TEST_F(fri_link, full_groups_alone_put_the_head_behind_the_last_one) {
    set_group(0, {});
    set_group(1, {});
    current_fri.header.fri_group_count = 3;
    stdout_capture out;
    EXPECT_EQ(tarn_link_fri_group(), 0);
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(4108), 2u);
}

TEST_F(fri_link, progress_is_told_in_hundredths_each_once) {
    current_fri.header.fri_group_count = 200;  // none initialised
    stdout_capture out;
    EXPECT_EQ(tarn_link_fri_group(), 0);
    std::string wanted;
    for (int i = 0; i < 100; i++) {
        wanted += "TARN_INFO: Processing " + std::to_string(i) + "/100\n";
    }
    EXPECT_EQ(out.text(), wanted);
    EXPECT_EQ(pool_.fri(0), "00 00 00 00 00 00 00 00 ");
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(4108), 0u);
}

TEST_F(fri_link, a_group_count_past_the_capacity_is_refused_before_anything_is_written) {
    for (const uint64_t count : {uint64_t{0x1F800001}, ~uint64_t{0}}) {
        current_fri.header.fri_group_count = count;
        log_capture log;
        const io_fault_at calls(0, 0);
        EXPECT_EQ(tarn_link_fri_group(), -1);
        EXPECT_EQ(calls.calls(), 0u);
        EXPECT_TRUE(log.has("ERR: tarn_link_fri_group(#) fri_group_count"));
        EXPECT_EQ(current_fri.header.fri_group_count, count);
    }
}

TEST_F(fri_link, a_second_relink_changes_nothing) {
    set_group(0, {3, 4000});
    current_fri.header.fri_group_count = 1;
    stdout_capture out;
    ASSERT_EQ(tarn_link_fri_group(), 0);
    const std::string entry = pool_.fri(0);
    current_fri.header.fri_group_count = 1;
    EXPECT_EQ(tarn_link_fri_group(), 0);
    EXPECT_EQ(pool_.fri(0), entry);
    EXPECT_EQ(pool_.tbl(3), 4000);
    EXPECT_EQ(pool_.tbl(4000), 0x1000);
}

// Every n-th call fails in turn: each one where entries are written, at a prime's distance along
// the 4096 reads of the group. The relink's last write, the header's, may be lost to a failure
// that is only counted; every other failure ends it, and the next relink makes it whole.
TEST_F(fri_link, whichever_call_fails_it_is_told_or_counted_and_the_next_relink_mends_it) {
    const entry_road_scope road;
    set_group(0, {3, 4000});
    current_fri.header.fri_group_count = 1;
    ASSERT_EQ(save_fri(), 0);
    uint64_t n = 1;
    for (bool fired = true; fired; n += n < 20 || n > 8180 ? 1 : 97) {
        pool_.set_fri(0, 9, 0, 0x8000);
        pool_.set_tbl(3, 0);
        pool_.set_tbl(4000, 0);
        current_fri.header.fri_group_count = 1;
        const uint64_t failed = keep_journal_reasons().count;
        log_capture log;
        stdout_capture out;
        int result = 0;
        {
            const io_fault_at fault(n, EIO);
            result = tarn_link_fri_group();
            fired = fault.fired();
        }
        EXPECT_EQ(result == 0 && keep_journal_reasons().count == failed, !fired) << n;
        EXPECT_EQ(log.lines().empty(), !fired) << n;
        current_fri.header.fri_group_count = 1;
        EXPECT_EQ(tarn_link_fri_group(), 0) << n;
        EXPECT_EQ(pool_.fri(0), "01 00 00 00 30 00 02 80 ") << n;
        EXPECT_EQ(pool_.tbl(3), 4000) << n;
        EXPECT_EQ(pool_.tbl(4000), 0x1000) << n;
    }
    EXPECT_GT(n, 8210u);
}

TEST_F(fri_link, an_entry_that_cannot_be_written_is_told_under_the_names_of_the_steps) {
    set_group(0, {});
    current_fri.header.fri_group_count = 1;
    log_capture log;
    stdout_capture out;
    const io_fault_at fault(1, EIO, {io_call::write});
    EXPECT_EQ(tarn_link_fri_group(), -1);
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: fri_entry_write(#) write fri error, group_num 0\n",
                         "ERR: set_fri_entry(#) Fail to write fri entry, group_num 0\n",
                         "ERR: tarn_link_fri_group(#) Fail to link free tbl entry, group_num 0, "
                         "head 0 free_count 0\n"}));
}

TEST_F(fri_link, a_link_that_cannot_be_written_ends_it_but_the_last_one) {
    set_group(0, {5});
    set_group(1, {6});
    stdout_capture out;
    // Writes: the tail and the entry of each group, then the links of 0 and 1, then the header.
    {
        current_fri.header.fri_group_count = 2;
        log_capture log;
        const io_fault_at fault(5, EIO, {io_call::write});
        EXPECT_EQ(tarn_link_fri_group(), -1);
        EXPECT_EQ(log.lines(),
                  log_lines({"ERR: fri_entry_write(#) write fri error, group_num 0\n",
                             "ERR: set_next_entry(#) Fail to write fri entry, group_num 0\n",
                             "ERR: tarn_link_fri_group(#) Fail to link fri entry, prev 0 next "
                             "1\n"}));
    }
    current_fri.header.fri_group_count = 2;
    log_capture log;
    const io_fault_at fault(6, EIO, {io_call::write});
    EXPECT_EQ(tarn_link_fri_group(), 0);
    EXPECT_EQ(log.lines().back(),
              "ERR: tarn_link_fri_group(#) Fail to link fri entry, prev 1 next 2\n");
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(72), 0x1F800000u);
}
