#include "tbl/tbl_freelist.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <optional>

#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/io_faults.h"
#include "support/io_outage.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/pool_files.h"
#include "support/stdout_capture.h"

// lpas of group 2: 8192 to 12287.
static constexpr uint64_t BASE = 8192;

TEST(tbl_freelist, a_group_never_written_becomes_one_ascending_list) {
    pool_files pool;
    uint16_t head = 77;
    EXPECT_EQ(link_free_tbl_entry_in_group(2, &head), 4096);
    EXPECT_EQ(head, 0);
    for (uint16_t offset = 0; offset < 4095; offset++) {
        ASSERT_EQ(pool.tbl(BASE + offset), offset + 1);
    }
    EXPECT_EQ(pool.tbl(BASE + 4095), 0x1000);
    EXPECT_EQ(pool.tbl(BASE + 4096), 0);  // the next group
    EXPECT_EQ(pool.tbl(BASE - 1), 0);
}

TEST(tbl_freelist, used_entries_are_skipped_and_foreign_bits_stay) {
    pool_files pool;
    pool.fill_group(2, 0x8001);
    pool.set_tbl(BASE + 5, 0x3FFF);     // free, an old tail, bit 13 set
    pool.set_tbl(BASE + 100, 0x4002);   // free, bit 14 set
    pool.set_tbl(BASE + 4000, 0x6007);  // free, both
    uint16_t head = 77;
    EXPECT_EQ(link_free_tbl_entry_in_group(2, &head), 3);
    EXPECT_EQ(head, 5);
    EXPECT_EQ(pool.tbl(BASE + 5), 0x2000 | 100);
    EXPECT_EQ(pool.tbl(BASE + 100), 0x4000 | 4000);
    EXPECT_EQ(pool.tbl(BASE + 4000), 0x7000);
    EXPECT_EQ(pool.tbl(BASE + 6), 0x8001);
}

TEST(tbl_freelist, a_full_group_has_no_list_and_leaves_the_head) {
    pool_files pool;
    pool.fill_group(2, 0x8001);
    uint16_t head = 77;
    const io_fault_at writes(0, 0, {io_call::write});
    EXPECT_EQ(link_free_tbl_entry_in_group(2, &head), 0);
    EXPECT_EQ(head, 77);
    EXPECT_EQ(writes.calls(), 0u);
}

TEST(tbl_freelist, a_last_offset_alone_is_head_and_tail_in_one_step) {
    pool_files pool;
    pool.fill_group(2, 0x8001);
    pool.set_tbl(BASE + 4095, 0x0123);
    uint16_t head = 77;
    const io_fault_at writes(0, 0, {io_call::write});
    EXPECT_EQ(link_free_tbl_entry_in_group(2, &head), 1);
    EXPECT_EQ(head, 4095);
    EXPECT_EQ(pool.tbl(BASE + 4095), 0x1000);
    EXPECT_EQ(writes.calls(), 1u);
}

TEST(tbl_freelist, a_group_past_the_table_is_not_linked) {
    pool_files pool;
    uint16_t head = 77;
    log_capture log;
    EXPECT_EQ(link_free_tbl_entry_in_group(0x1F800000, &head), -1);
    EXPECT_EQ(link_free_tbl_entry_in_group(~uint64_t{0}, &head), -1);
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: link_free_tbl_entry_in_group(#) Fail to link free tbl entry, "
                         "group_num 528482304\n",
                         "ERR: link_free_tbl_entry_in_group(#) Fail to link free tbl entry, "
                         "group_num 18446744073709551615\n"}));
    EXPECT_EQ(pool.tbl_file.size(), 1048576u);
}

TEST(tbl_freelist, an_entry_that_cannot_be_read_ends_the_linking) {
    const single_entry_path path;
    pool_files pool;
    uint16_t head = 77;
    log_capture log;
    const io_fault_at fault(1, EIO, {io_call::read});
    EXPECT_EQ(link_free_tbl_entry_in_group(2, &head), -1);
    EXPECT_EQ(log.lines(), log_lines({"ERR: tbl_entry_read(#) tbl read error, lpa[8192]\n",
                                      "ERR: link_free_tbl_entry_in_group(#) Fail to link free tbl "
                                      "entry, group_num 2\n"}));
}

// A group without a used entry would need 4096 of them.
TEST(tbl_freelist, a_link_that_cannot_be_written_ends_the_linking) {
    for (const bool by_entries : {true, false}) {
        pool_files pool;
        std::optional<single_entry_path> path;
        if (by_entries) {
            path.emplace();
        }
        uint16_t head = 77;
        log_capture log;
        const io_outage outage(io_call::write);
        EXPECT_EQ(link_free_tbl_entry_in_group(2, &head), -1);
        EXPECT_EQ(log.lines(), log_lines({"ERR: tbl_entry_write(#) write tbl error, lpa 8192\n",
                                          "ERR: link_free_tbl_entry_in_group(#) Fail to link tbl "
                                          "list, group_num 2\n"}));
    }
    keep_journal_forget();
}

// The single-entry path.
TEST(tbl_freelist, a_linking_reads_each_entry_once_and_writes_each_link_once) {
    const single_entry_path path;
    pool_files pool;
    pool.fill_group(2, 0x8001);
    pool.set_tbl(BASE + 3, 0x0007);
    pool.set_tbl(BASE + 4093, 0x0000);
    pool.set_tbl(BASE + 2 * 4096, 0);  // the file does not end inside a block of the group
    uint16_t head = 77;
    {
        const io_fault_at reads(0, 0, {io_call::read});
        EXPECT_EQ(link_free_tbl_entry_in_group(2, &head), 2);
        EXPECT_EQ(reads.calls(), 4096u + 2) << "the entries, and the blocks that get a link";
    }
    const io_fault_at writes(0, 0, {io_call::write});
    EXPECT_EQ(link_free_tbl_entry_in_group(2, &head), 2);
    EXPECT_EQ(writes.calls(), 2u);
}

// Two free entries among 4094 used ones. Of the calls, those near the first and the last entry fail
// one after another, and between them every 97th.
TEST(tbl_freelist, whichever_call_of_a_linking_fails_it_is_logged_and_the_next_one_repairs_it) {
    const single_entry_path path;
    pool_files pool;
    pool.fill_group(2, 0x8001);
    uint16_t head = 77;
    uint64_t calls = 0;
    {
        pool.set_tbl(BASE + 3, 0x0007);
        pool.set_tbl(BASE + 4093, 0x0000);
        const io_fault_at undisturbed(0, 0);
        EXPECT_EQ(link_free_tbl_entry_in_group(2, &head), 2);
        calls = undisturbed.calls();
    }
    failed_calls failing;
    uint64_t n = 1;
    for (bool fired = true; fired; n += n < 40 || n + 40 > calls ? 1 : 97) {
        pool.set_tbl(BASE + 3, 0x0007);
        pool.set_tbl(BASE + 4093, 0x0000);
        head = 77;
        int linked = 0;
        const uint64_t failed = keep_journal_reasons().count;
        log_capture log;
        {
            const io_fault_at fault(n, EIO);
            linked = link_free_tbl_entry_in_group(2, &head);
            fired = failing.add(fault);
        }
        EXPECT_EQ(linked == 2 && keep_journal_reasons().count == failed, !fired) << n;
        EXPECT_EQ(log.lines().empty(), !fired) << n;
        EXPECT_EQ(link_free_tbl_entry_in_group(2, &head), 2);
        EXPECT_EQ(head, 3);
        EXPECT_EQ(pool.tbl(BASE + 3), 4093);
        EXPECT_EQ(pool.tbl(BASE + 4093), 0x1000);
    }
    EXPECT_EQ(failing.kinds(), "read write seek");
    EXPECT_EQ(failing.count(io_call::write), 2u) << "each link";
}

// A repair of an index skips lists that are not sound; this one could not even be read.
TEST(tbl_freelist_check, a_list_that_cannot_be_read_is_recorded) {
    pool_files pool;
    keep_journal_forget();
    log_capture log;
    stdout_capture out;
    const io_outage outage(io_call::read);
    EXPECT_EQ(tbl_check_group_free_count(2, 7, 3), -1);
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: tbl_entry_read(#) tbl read error, lpa[8199]\n",
                         "ERR: tbl_check_group_free_count(#) tbl_check_group_free_count read "
                         "error\n"}));
    EXPECT_EQ(keep_journal_failures().count, 1u);
    keep_journal_forget();
}

TEST(tbl_freelist_check, a_list_of_the_expected_length_matches) {
    pool_files pool;
    pool.set_tbl(BASE + 7, 3);
    pool.set_tbl(BASE + 3, 4095);
    pool.set_tbl(BASE + 4095, 0x1000);
    log_capture log;
    stdout_capture out;
    EXPECT_EQ(tbl_check_group_free_count(2, 7, 3), 0);
    EXPECT_EQ(out.text(),
              "TARN_INFO: TBL free start from group_num 2 group_offset 7 (lpa 8199)\n"
              "TARN_INFO: FREE_COUNT IS MATCH in TBL freelist, free count 3 check_free_count 3 "
              "group_num 2 group_offset 7 (lpa 8199), tail entry offset 4095 (lpa 12287)\n");
    EXPECT_TRUE(log.lines().empty());
}

TEST(tbl_freelist_check, a_list_of_the_wrong_length_is_reported) {
    pool_files pool;
    pool.set_tbl(BASE + 7, 3);
    pool.set_tbl(BASE + 3, 0x1000);
    log_capture log;
    stdout_capture out;
    EXPECT_EQ(tbl_check_group_free_count(2, 7, 3), -1);
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: tbl_check_group_free_count(#) FREE_COUNT NOT MATCH in TBL freelist, "
                         "free count 2 check_free_count 3 group_num 2 offset 7 (lpa 8195)\n"}));
}

TEST(tbl_freelist_check, a_wholly_free_group_matches_4096) {
    pool_files pool;
    uint16_t head = 0;
    ASSERT_EQ(link_free_tbl_entry_in_group(2, &head), 4096);
    stdout_capture out;
    EXPECT_EQ(tbl_check_group_free_count(2, 0, 4096), 0);
}

TEST(tbl_freelist_check, a_list_that_loops_ends_after_4097_entries) {
    const single_entry_path path;
    pool_files pool;
    pool.set_tbl(BASE + 7, 9);
    pool.set_tbl(BASE + 9, 7);
    log_capture log;
    stdout_capture out;
    const io_fault_at reads(0, 0, {io_call::read});
    EXPECT_EQ(tbl_check_group_free_count(2, 7, 2), -1);
    EXPECT_EQ(reads.calls(), 4097u);
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: tbl_check_group_free_count(#) NOT TAIL last entry in TBL freelist, "
                         "group_num 2 offset 9 (lpa 8201) count 4097 check_free_count 2\n"}));
}

TEST(tbl_freelist_check, a_list_that_runs_into_a_used_entry_is_reported_twice) {
    pool_files pool;
    pool.set_tbl(BASE + 7, 9);
    pool.set_tbl(BASE + 9, 0x8001);
    log_capture log;
    stdout_capture out;
    EXPECT_EQ(tbl_check_group_free_count(2, 7, 2), -1);
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: tbl_check_group_free_count(#) USED entry in TBL freelist, group_num "
                         "2 offset 9 (lpa 8201)\n",
                         "ERR: tbl_check_group_free_count(#) NOT TAIL last entry in TBL freelist, "
                         "group_num 2 offset 9 (lpa 8201) count 1 check_free_count 2\n"}));
}

TEST(tbl_freelist_check, a_used_tail_is_reported_and_the_count_still_decides) {
    pool_files pool;
    pool.set_tbl(BASE + 7, 9);
    pool.set_tbl(BASE + 9, 0x9000);
    log_capture log;
    stdout_capture out;
    EXPECT_EQ(tbl_check_group_free_count(2, 7, 1), 0);
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: tbl_check_group_free_count(#) USED entry in TBL freelist, group_num "
                         "2 offset 9 (lpa 8201)\n"}));
    EXPECT_NE(out.text().find("FREE_COUNT IS MATCH in TBL freelist, free count 1"),
              std::string::npos);
    EXPECT_EQ(tbl_check_group_free_count(2, 7, 2), -1);
}

TEST(tbl_freelist_check, an_entry_that_cannot_be_read_or_does_not_exist_is_a_read_error) {
    const single_entry_path path;
    pool_files pool;
    stdout_capture out;
    log_capture log;
    {
        const io_fault_at fault(1, EIO, {io_call::read});
        EXPECT_EQ(tbl_check_group_free_count(2, 7, 1), -1);
    }
    EXPECT_EQ(tbl_check_group_free_count(0x1F800000, 0, 1), -1);
    EXPECT_EQ(tbl_check_group_free_count(0, 4096, 1), -1);
    EXPECT_EQ(log.count("ERR: tbl_check_group_free_count(#) tbl_check_group_free_count read "
                        "error\n"),
              3u);
}
