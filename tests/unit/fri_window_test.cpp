#include "fri/fri_window.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "fri/fri_entries.h"
#include "fri/fri_file.h"
#include "fri/fri_link.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/io_outage.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/pool_files.h"
#include "support/stdout_capture.h"

static constexpr uint64_t CAPACITY = 0x1F800000;  // groups of an index
static constexpr uint64_t INDEX_SIZE = 0x100100000;

static uint64_t entry_offset(uint64_t group) {
    return ((group / 63 + 2048) * 64 + group % 63) * 8;
}

class fri_window_of_index : public testing::Test {
protected:
    // An entry that differs from that of every other group.
    void set_numbered(uint64_t group) { pool_.set_fri(group, static_cast<uint32_t>(group), 7, 9); }
    void expect_numbered(uint64_t group) {
        fri_entry entry{};
        ASSERT_TRUE(fri_window_read(current_fri.fd, &window_, group, &entry)) << group;
        EXPECT_EQ(fri_entry_next(&entry), group | uint64_t{7} << 32);
        EXPECT_EQ(fri_entry_count(&entry), 9);
    }
    // A full-sized index, sparse.
    void stretch() { pool_.fri_file.write_at(INDEX_SIZE - 1, uint8_t{0}); }
    // Groups 0, 1 and 3 of `group_count` were initialised; group 0 has one free extent, and group 3
    // another one. Returns the reads of a relink.
    uint64_t reads_of_relink(uint64_t group_count) {
        current_fri.header.fri_group_count = group_count;
        for (const uint64_t group : {uint64_t{0}, uint64_t{1}, uint64_t{3}}) {
            pool_.fill_group(group, 0x8001);
            pool_.set_fri(group, 0, 0, 0x8000);
        }
        pool_.set_fri(2, 0, 0, 0);
        pool_.set_tbl(5, 0);
        pool_.set_tbl(3 * 4096 + 9, 0);
        const io_fault_at reads(0, 0, {io_call::read});
        EXPECT_EQ(tarn_link_fri_group(), 0);
        return reads.calls();
    }

    pool_files pool_;
    fri_window window_{};
    log_capture log_;
};

TEST_F(fri_window_of_index, shows_the_entries_of_consecutive_groups) {
    stretch();
    for (uint64_t group = 0; group < 10000; group++) {
        set_numbered(group);
    }
    const io_fault_at reads(0, 0, {io_call::read});
    for (uint64_t group = 0; group < 10000; group++) {
        expect_numbered(group);
    }
    EXPECT_EQ(reads.calls(), 3u) << "4032 groups a window: each window is read once";
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(fri_window_of_index, shows_groups_in_any_order) {
    for (const uint64_t group : {0, 62, 63, 4031, 4032, 100000}) {
        set_numbered(group);
    }
    for (const uint64_t group : {100000, 62, 4032, 4031, 63, 0, 100000}) {
        expect_numbered(group);
    }
}

TEST_F(fri_window_of_index, shows_uninitialised_groups_past_the_end_of_the_file) {
    set_numbered(70);  // the file ends in block 1
    window_.count = 0;
    fri_entry entry{1, 2, 3};
    ASSERT_TRUE(fri_window_read(current_fri.fd, &window_, 71, &entry));
    EXPECT_EQ(hex_of(entry), "00 00 00 00 00 00 00 00 ");
    entry = {1, 2, 3};
    ASSERT_TRUE(fri_window_read(current_fri.fd, &window_, 5000000, &entry));
    EXPECT_EQ(hex_of(entry), "00 00 00 00 00 00 00 00 ");
}

TEST_F(fri_window_of_index, shows_the_last_group_and_none_after_it) {
    stretch();
    set_numbered(CAPACITY - 1);
    expect_numbered(CAPACITY - 1);
    fri_entry entry{};
    EXPECT_FALSE(fri_window_read(current_fri.fd, &window_, CAPACITY, &entry));
    EXPECT_FALSE(fri_window_read(current_fri.fd, &window_, ~uint64_t{0}, &entry));
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(fri_window_of_index, is_not_read_on_the_single_entry_path) {
    const single_entry_path path;
    fri_entry entry{};
    EXPECT_FALSE(fri_window_read(current_fri.fd, &window_, 0, &entry));
}

TEST_F(fri_window_of_index, that_cannot_be_read_shows_nothing_until_it_is_readable_again) {
    set_numbered(5);
    set_numbered(8000);
    expect_numbered(5);
    fri_entry entry{};
    {
        const io_outage outage(io_call::read);
        EXPECT_FALSE(fri_window_read(current_fri.fd, &window_, 8000, &entry));
        EXPECT_FALSE(fri_window_read(current_fri.fd, &window_, 8001, &entry));
    }
    EXPECT_TRUE(log_.lines().empty());
    expect_numbered(8000);
    expect_numbered(5);
}

TEST_F(fri_window_of_index, continues_reads_that_move_a_part) {
    set_numbered(0);
    set_numbered(4000);
    for (uint64_t n = 1; n <= 3; n++) {
        const io_fault_at fault(n, 0, {io_call::read});
        window_.count = 0;
        expect_numbered(4000);
        expect_numbered(0);
    }
}

TEST_F(fri_window_of_index, groups_in_holes_are_skipped) {
    stretch();
    set_numbered(3000000);
    const uint64_t begin = fri_next_group_with_data(current_fri.fd, 0, CAPACITY);
    // The file system reports holes in its own units: not after the group, and less than a mebibyte
    // before it.
    EXPECT_LE(begin, 3000000u);
    EXPECT_GE(begin, 3000000u - 131072);
    EXPECT_EQ(begin % 63, 0u);
    EXPECT_EQ(fri_next_group_with_data(current_fri.fd, 3000000, CAPACITY), 3000000u);
    EXPECT_EQ(fri_next_group_with_data(current_fri.fd, 0, begin), begin);  // at most `end`
    EXPECT_EQ(fri_next_group_with_data(current_fri.fd, 0, 2999), 2999u);
    EXPECT_EQ(fri_next_group_with_data(current_fri.fd, 3200000, CAPACITY - 70000),
              CAPACITY - 70000);
}

TEST_F(fri_window_of_index, no_group_is_found_after_the_end_of_the_file) {
    EXPECT_EQ(fri_next_group_with_data(current_fri.fd, 0, 5000), 5000u);
    set_numbered(100);
    EXPECT_EQ(fri_next_group_with_data(current_fri.fd, 63 * 1000, CAPACITY), CAPACITY);
    EXPECT_EQ(fri_next_group_with_data(current_fri.fd, CAPACITY - 63, CAPACITY), CAPACITY);
}

// After a full relink the group count is the capacity: half a thousand million groups, of
// which a few were ever initialised. 0x1F800000 = 2^23 * 63 has 4 in common with 100, so the
// progress is printed at each quarter.
TEST_F(fri_window_of_index, an_index_at_capacity_is_relinked_at_the_cost_of_its_groups) {
    stretch();
    uint64_t reads_of_four_groups = 0;
    {
        const stdout_capture ignored;
        reads_of_four_groups = reads_of_relink(4);
    }
    stdout_capture out;
    const uint64_t reads = reads_of_relink(CAPACITY);
    EXPECT_EQ(out.text(),
              "TARN_INFO: Processing 0/100\n"
              "TARN_INFO: Processing 25/100\n"
              "TARN_INFO: Processing 50/100\n"
              "TARN_INFO: Processing 75/100\n");
    EXPECT_EQ(pool_.fri(0), "02 00 00 00 50 00 01 80 ");  // next 2, head 5, count 1
    EXPECT_EQ(pool_.fri(1), "00 00 00 00 00 00 00 80 ");  // full: on no list
    EXPECT_EQ(pool_.fri(2), "03 00 00 00 00 00 00 90 ");  // next 3, wholly free
    EXPECT_EQ(pool_.fri(3), "04 00 00 00 90 00 01 80 ");  // next 4, head 9, count 1
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(72), CAPACITY);
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(4108), 0u);  // the head of the list
    EXPECT_EQ(reads, reads_of_four_groups + 1) << "the last block, which is not in a hole";
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(fri_window_of_index, a_short_index_at_capacity_is_relinked_as_well) {
    current_fri.header.fri_group_count = CAPACITY;
    pool_.set_fri(1, 0, 0, 0x8000);
    stdout_capture out;
    EXPECT_EQ(tarn_link_fri_group(), 0);
    EXPECT_TRUE(out.text().ends_with("TARN_INFO: Processing 75/100\n"));
    EXPECT_EQ(pool_.fri(0), "01 00 00 00 00 00 00 90 ");
    EXPECT_EQ(pool_.fri(1), "02 00 00 00 00 00 00 90 ");
    EXPECT_EQ(pool_.fri_file.size(), entry_offset(63));  // its first block
}

TEST_F(fri_window_of_index, the_last_group_of_all_is_not_skipped) {
    stretch();
    pool_.set_fri(CAPACITY - 1, 0, 0, 0x8000);
    EXPECT_EQ(fri_next_group_with_data(current_fri.fd, CAPACITY - 63, CAPACITY), CAPACITY - 63);
    fri_entry entry{};
    ASSERT_TRUE(fri_window_read(current_fri.fd, &window_, CAPACITY - 1, &entry));
    EXPECT_TRUE(fri_entry_is_init(&entry));
}

static std::vector<std::string> lines_of_relink_without(io_call kind, uint64_t from) {
    log_capture log;
    stdout_capture out;
    current_fri.header.fri_group_count = 130;
    {
        const io_outage outage(kind, from);
        EXPECT_EQ(tarn_link_fri_group(), -1);
    }
    std::vector<std::string> lines = log.lines();
    lines.push_back(out.text());
    return lines;
}

TEST(fri_window, an_index_that_cannot_be_read_is_logged_as_on_the_single_entry_path) {
    pool_files pool;
    for (uint64_t group = 0; group < 130; group++) {
        pool.set_fri(group, 0, 0, 0);
    }
    const std::vector<std::string> by_windows = lines_of_relink_without(io_call::read, 1);
    const single_entry_path path;
    EXPECT_EQ(by_windows, lines_of_relink_without(io_call::read, 1));
    EXPECT_EQ(by_windows, log_lines({"ERR: fri_entry_read(#) fri read error, group_num[0]\n",
                                     "ERR: tarn_link_fri_group(#) Fail to read fri entry, "
                                     "group_num 0\n",
                                     ""}));
    keep_journal_forget();
}
