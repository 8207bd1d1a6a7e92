#include "fri/fri_link.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "fri/fri_file.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/io_faults.h"
#include "support/io_outage.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/pool_files.h"
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
    const single_entry_path path;
    set_group(0, {3, 4000});
    current_fri.header.fri_group_count = 1;
    ASSERT_EQ(save_fri(), 0);
    uint64_t calls = 0;  // of the last relink, which nothing disturbs
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
            calls = fault.calls();
        }
        EXPECT_EQ(result == 0 && keep_journal_reasons().count == failed, !fired) << n;
        EXPECT_EQ(log.lines().empty(), !fired) << n;
        current_fri.header.fri_group_count = 1;
        EXPECT_EQ(tarn_link_fri_group(), 0) << n;
        EXPECT_EQ(pool_.fri(0), "01 00 00 00 30 00 02 80 ") << n;
        EXPECT_EQ(pool_.tbl(3), 4000) << n;
        EXPECT_EQ(pool_.tbl(4000), 0x1000) << n;
    }
    // The group's entry is read and written twice, each entry of the table is read once, each of
    // the two links reads and writes a block, and the header has three nodes. All with a seek.
    EXPECT_EQ(calls, 2 * (2 + 4) + 4096 * 2 + 2 * 4 + 3 * 2u);
}

TEST_F(fri_link, an_entry_that_cannot_be_written_is_told_under_the_names_of_the_steps) {
    const single_entry_path path;
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
    const single_entry_path path;
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

// A block of the index that cannot be written as a whole is written entry by entry.
TEST_F(fri_link, a_failing_block_write_is_made_good_by_its_entries) {
    set_group(0, {5});
    set_group(1, {6});
    for (uint64_t n = 1; n <= 4; n++) {  // two groups of the table, the index twice
        pool_.set_tbl(5, 0);
        pool_.set_tbl(6 + 4096, 0);
        current_fri.header.fri_group_count = 2;
        const log_capture log;
        const stdout_capture out;
        const io_fault_at fault(n, EIO, {io_call::write});
        EXPECT_EQ(tarn_link_fri_group(), 0) << n;
        EXPECT_EQ(log.lines(), log_lines({})) << n;
        EXPECT_EQ(pool_.fri(0), "01 00 00 00 50 00 01 80 ") << n;
        EXPECT_EQ(pool_.fri(1), "02 00 00 00 60 00 01 80 ") << n;
    }
}

TEST_F(fri_link, on_a_disk_that_takes_no_entry_of_the_index_the_first_one_is_logged) {
    set_group(0, {5});
    set_group(1, {6});
    current_fri.header.fri_group_count = 2;
    const log_capture log;
    const stdout_capture out;
    const io_outage outage(io_call::write, 3);  // the table's two blocks go out
    EXPECT_EQ(tarn_link_fri_group(), -1);
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: fri_entry_write(#) write fri error, group_num 0\n",
                         "ERR: set_fri_entry(#) Fail to write fri entry, group_num 0\n",
                         "ERR: tarn_link_fri_group(#) Fail to link free tbl entry, group_num 0, "
                         "head 5 free_count 1\n"}));
}

// Lists that were linked before are taken over, and their groups in the table are not read.
TEST_F(fri_link, takes_over_the_lists_that_are_linked) {
    set_group(0, {5});
    set_group(1, {6});
    set_group(2, {});
    current_fri.header.fri_group_count = 3;
    linked_group rows[] = {{0, 77, 12}, {2, 0, 0}};
    const linked_groups linked = {rows, 2, 2};
    const stdout_capture out;
    EXPECT_EQ(tarn_link_fri_group(&linked), 0);
    EXPECT_EQ(pool_.fri(0), "01 00 00 00 d0 04 0c 80 ");  // head 0x4d, 12 free
    EXPECT_EQ(pool_.fri(1).substr(12), "60 00 01 80 ");
    EXPECT_EQ(pool_.fri(2).substr(12), "00 00 00 80 ");
    EXPECT_EQ(pool_.tbl(5), 0);  // not looked at
    EXPECT_EQ(pool_.tbl(6 + 4096), 0x1000);
}

// The n-th transfer of that many bytes fails.
static struct {
    io_call kind;
    size_t bytes;
    uint64_t n;
} failing_transfer;

static io_verdict fail_transfer(io_call call, size_t wanted) {
    const bool counts = call == failing_transfer.kind && wanted == failing_transfer.bytes;
    return {counts && --failing_transfer.n == 0 ? EIO : 0, wanted};
}

// Groups 0 and 2 are initialised, with one free extent each; 1 is a hole of the index. An entry of
// the index is read in 8 bytes, one of the table in 2, and both are written in blocks of 512.
class relink_half_way : public fri_link {
protected:
    relink_half_way() {
        set_group(0, {3});
        set_group(2, {5});
        current_fri.header.fri_group_count = 3;
        current_fri.header.fri_group_head = 7;
        EXPECT_EQ(save_fri(), 0);
    }

    // The lines of a relink whose n-th such transfer fails. Its counters never reach the disk.
    std::vector<std::string> lines_of_failure(io_call kind, size_t bytes, uint64_t n) {
        const single_entry_path path;
        const log_capture log;
        const stdout_capture out;
        failing_transfer = {kind, bytes, n};
        {
            const fault_hook hook(fail_transfer);
            EXPECT_EQ(tarn_link_fri_group(), -1);
        }
        EXPECT_EQ(failing_transfer.n, 0u);
        EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(72), 3u);    // groups
        EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(4108), 7u);  // head
        return log.lines();
    }
};

static const std::string RECOUNTED_0 = "00 00 00 00 30 00 01 80 ";  // head 3, count 1
static const std::string RECOUNTED_2 = "00 00 00 00 50 00 01 80 ";  // head 5, count 1
static const std::string NEVER_COUNTED = "00 00 00 00 00 00 00 80 ";

TEST_F(relink_half_way, by_an_entry_of_the_index_keeps_what_it_recounted) {
    EXPECT_EQ(lines_of_failure(io_call::read, 8, 3),
              log_lines({"ERR: fri_entry_read(#) fri read error, group_num[2]\n",
                         "ERR: tarn_link_fri_group(#) Fail to read fri entry, group_num 2\n"}));
    EXPECT_EQ(pool_.fri(0), RECOUNTED_0);
    EXPECT_EQ(pool_.fri(2), NEVER_COUNTED);
}

TEST_F(relink_half_way, by_an_entry_of_the_table_keeps_what_it_recounted) {
    EXPECT_EQ(lines_of_failure(io_call::read, 2, 4097),
              log_lines({"ERR: tbl_entry_read(#) tbl read error, lpa[8192]\n",
                         "ERR: link_free_tbl_entry_in_group(#) Fail to link free tbl entry, "
                         "group_num 2\n",
                         "ERR: tarn_link_fri_group(#) Fail to link free tbl entry, group_num "
                         "2\n"}));
    EXPECT_EQ(pool_.fri(0), RECOUNTED_0);
    EXPECT_EQ(pool_.fri(2), NEVER_COUNTED);
}

TEST_F(relink_half_way, by_an_entry_that_is_to_be_chained_keeps_every_count) {
    EXPECT_EQ(lines_of_failure(io_call::read, 8, 5),  // after three that were recounted
              log_lines({"ERR: fri_entry_read(#) fri read error, group_num[1]\n",
                         "ERR: find_none_empty_entry(#) Fail to read fri entry, group_num 1\n",
                         "ERR: tarn_link_fri_group(#) Fail to find free fri entry, stop "
                         "group_num 1\n"}));
    EXPECT_EQ(pool_.fri(0), RECOUNTED_0);
    EXPECT_EQ(pool_.fri(2), RECOUNTED_2);
}

// Written before: the tail of each list, and the entry of its group.
TEST_F(relink_half_way, by_a_hole_that_cannot_be_initialised_leaves_the_hole) {
    EXPECT_EQ(lines_of_failure(io_call::write, 512, 5),
              log_lines({"ERR: fri_entry_write(#) write fri error, group_num 1\n",
                         "ERR: find_none_empty_entry(#) Fail to write fri entry, group_num 1\n",
                         "ERR: tarn_link_fri_group(#) Fail to find free fri entry, stop "
                         "group_num 1\n"}));
    EXPECT_EQ(pool_.fri(0), RECOUNTED_0);
    EXPECT_EQ(pool_.fri(1), "00 00 00 00 00 00 00 00 ");
    EXPECT_EQ(pool_.fri(2), RECOUNTED_2);
}

TEST_F(relink_half_way, by_the_list_of_a_hole_leaves_it_initialised_and_not_chained) {
    EXPECT_EQ(lines_of_failure(io_call::write, 512, 6),
              log_lines({"ERR: tbl_entry_write(#) write tbl error, lpa 4096\n",
                         "ERR: link_free_tbl_entry_in_group(#) Fail to link tbl list, group_num "
                         "1\n",
                         "ERR: find_none_empty_entry(#) Fail to link free tbl entry, group_num "
                         "1\n",
                         "ERR: tarn_link_fri_group(#) Fail to find free fri entry, stop "
                         "group_num 1\n"}));
    EXPECT_EQ(pool_.fri(0), RECOUNTED_0);
    EXPECT_EQ(pool_.fri(1), "00 00 00 00 00 00 00 90 ");  // head 0, count 4096
}

// The header is the last of it: two constant nodes and a variable one, after the tail of the list,
// the entry and its link.
TEST_F(fri_link, a_header_that_cannot_be_saved_is_counted_as_a_failure_and_the_result_is_0) {
    set_group(0, {5});
    const char* const nodes[] = {"const meta node[0]", "const meta node[1]", "var meta node[0]"};
    for (size_t i = 0; i < 3; i++) {
        pool_.set_tbl(5, 0);  // one write of the table and two of the index come first
        current_fri.header.fri_group_count = 1;
        keep_journal_forget();
        const log_capture log;
        const stdout_capture out;
        const io_fault_at fault(4 + i, EIO, {io_call::write});
        EXPECT_EQ(tarn_link_fri_group(), 0);
        EXPECT_TRUE(fault.fired());
        EXPECT_EQ(keep_journal_failures().count, 1u);
        EXPECT_EQ(log.last(),
                  std::string("ERR: tarn_save_meta_nodes(#) ") + nodes[i] + " save fail\n");
        EXPECT_EQ(pool_.fri(0), "01 00 00 00 50 00 01 80 ");  // next 1, head 5, count 1
    }
}
