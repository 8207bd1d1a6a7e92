#include "fri/fri_entries.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/pool_files.h"
#include "support/stdout_capture.h"

TEST(fri_entry, each_field_changes_alone) {
    fri_entry entry{0x44332211, 0xABC5, 0xFFFF};
    EXPECT_EQ(fri_entry_next(&entry), 0x544332211u);
    EXPECT_EQ(fri_entry_head(&entry), 0xABC);
    EXPECT_EQ(fri_entry_count(&entry), 0x3FFF);
    fri_entry_set_next(&entry, 0xE00000007);
    EXPECT_EQ(hex_of(entry), "07 00 00 00 ce ab ff ff ");
    fri_entry_set_head(&entry, 0x123);
    EXPECT_EQ(hex_of(entry), "07 00 00 00 3e 12 ff ff ");
    fri_entry_set_count(&entry, 4096);
    EXPECT_EQ(hex_of(entry), "07 00 00 00 3e 12 00 d0 ");
    entry.ef_count_attr = 0x4001;
    EXPECT_FALSE(fri_entry_is_init(&entry));
    fri_entry_set_init(&entry);
    EXPECT_TRUE(fri_entry_is_init(&entry));
    EXPECT_EQ(entry.ef_count_attr, 0xC001);
}

TEST(fri_entries, an_entry_is_written_into_its_block_whose_other_bytes_stay) {
    pool_files pool;
    const uint8_t gap[4] = {0xa1, 0xa2, 0xa3, 0xa4};
    pool.fri_file.write_at(1048576 + 512 + 504, gap);
    const fri_entry entry{7, 0x1235, 0xD000};

    EXPECT_EQ(fri_entry_write(&entry, 64), 0);  // block 1, slot 1

    EXPECT_EQ(hex_of(pool.fri_file.bytes(1048576 + 512, 16)),
              "00 00 00 00 00 00 00 00 07 00 00 00 35 12 00 d0\n");
    EXPECT_EQ(hex_of(pool.fri_file.bytes(1048576 + 512 + 504, 8)),  // sealed: 2605208f
              "a1 a2 a3 a4 8f 20 05 26 ");
    fri_entry read{};
    EXPECT_EQ(fri_entry_read(&read, 64), 8);
    EXPECT_EQ(hex_of(read), hex_of(entry));
}

TEST(fri_entries, past_the_end_of_the_file_a_group_reads_as_uninitialised) {
    pool_files pool;
    fri_entry entry{1, 2, 0x8003};
    EXPECT_EQ(fri_entry_read(&entry, 0xFFFFFFFFF), 0);
    EXPECT_EQ(hex_of(entry), "00 00 00 00 00 00 00 00 ");
}

TEST(fri_entries, a_group_that_cannot_be_read_is_logged) {
    pool_files pool;
    fri_entry entry{};
    log_capture log;
    EXPECT_LT(fri_entry_read(&entry, ~uint64_t{0}), 0);
    EXPECT_EQ(log.lines().back(),
              "ERR: fri_entry_read(#) fri read error, group_num[18446744073709551615]\n");
    close_fri();
    EXPECT_LT(fri_entry_read(&entry, 5), 0);
    EXPECT_EQ(log.lines().back(), "ERR: fri_entry_read(#) fri read error, group_num[5]\n");
}

TEST(fri_entries, a_group_past_the_capacity_or_no_index_is_a_counted_failure) {
    pool_files pool;
    const fri_entry entry{0, 0, 0x8000};
    const uint64_t failed = keep_journal_reasons().count;
    log_capture log;
    EXPECT_EQ(fri_entry_write(&entry, 0x1F800000), -1);
    close_fri();
    EXPECT_EQ(fri_entry_write(&entry, 0), -1);
    EXPECT_EQ(keep_journal_reasons().count, failed + 2);
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: fri_entry_write(#) write fri error, group_num 528482304\n",
                         "ERR: fri_entry_write(#) fri file descriptor is invalid\n"}));
    EXPECT_EQ(pool.fri_file.size(), 1048576u);
}

TEST(fri_entries, whichever_call_of_a_write_fails_it_is_returned_logged_and_counted_once) {
    pool_files pool;
    const fri_entry entry{0, 0, 0x8000};
    pool.fri_file.write_at(1048576 + 508, uint32_t{0});
    const char* const lines[] = {
        "ERR: fri_entry_write(#) read fri error before write fri entry, "
        "group_num 1\n",
        "ERR: fri_entry_write(#) write fri error, group_num 1\n"};
    failed_calls failed;
    uint64_t n = 1;
    for (bool fired = true; fired; n++) {
        const uint64_t counted = keep_journal_reasons().count;
        log_capture log;
        const io_fault_at fault(n, EIO);
        const int result = fri_entry_write(&entry, 1);
        fired = failed.add(fault);
        EXPECT_EQ(result, fired ? -1 : 0) << n;
        EXPECT_EQ(keep_journal_reasons().count, counted + (fired ? 1 : 0)) << n;
        if (fired) {
            EXPECT_EQ(log.lines().back(), lines[n <= 2 ? 0 : 1]) << n;
        }
    }
    EXPECT_EQ(failed.in_order(), "seek read seek write");
}

TEST(fri_init_bit, it_is_set_alone_and_raises_the_saved_group_count) {
    pool_files pool;
    pool.set_fri(9, 5, 0x0070, 0x4003);
    EXPECT_EQ(tarn_fri_set_init_bit(9), 0);
    EXPECT_EQ(pool.fri(9), "05 00 00 00 70 00 03 c0 ");
    EXPECT_EQ(pool.fri_file.read_at<uint64_t>(72), 10u);
    EXPECT_EQ(tarn_fri_set_init_bit(3), 0);  // lower: the count stays
    EXPECT_EQ(pool.fri(3), "00 00 00 00 00 00 00 80 ");
    EXPECT_EQ(pool.fri_file.read_at<uint64_t>(72), 10u);
}

TEST(fri_init_bit, a_group_that_has_it_is_not_written) {
    pool_files pool;
    pool.set_fri(9, 0, 0, 0x8000);
    const io_fault_at writes(0, 0, {io_call::write});
    EXPECT_EQ(tarn_fri_set_init_bit(9), 0);
    EXPECT_EQ(writes.calls(), 0u);
    EXPECT_EQ(current_fri.header.fri_group_count, 0u);
}

TEST(fri_init_bit, a_group_past_the_capacity_fails) {
    pool_files pool;
    log_capture log;
    EXPECT_EQ(tarn_fri_set_init_bit(0x1F800000), -1);
    EXPECT_EQ(log.lines().back(),
              "ERR: tarn_fri_set_init_bit(#) Fail to write fri entry, group_num 528482304\n");
    EXPECT_EQ(current_fri.header.fri_group_count, 0u);
}

TEST(fri_init_bit, a_failing_save_is_counted_and_otherwise_ignored) {
    pool_files pool;
    const uint64_t failed = keep_journal_reasons().count;
    log_capture log;
    const io_fault_at fault(2, EIO, {io_call::write});  // the entry's block, then the header
    EXPECT_EQ(tarn_fri_set_init_bit(9), 0);
    EXPECT_EQ(keep_journal_reasons().count, failed + 1);
    EXPECT_TRUE(log.has("const meta node[0] save fail"));
    EXPECT_EQ(current_fri.header.fri_group_count, 10u);
}

TEST(fri_init_bit, an_entry_that_cannot_be_read_or_written_fails) {
    pool_files pool;
    log_capture log;
    for (uint64_t n = 1; n <= 6; n++) {
        const io_fault_at fault(n, EIO);
        EXPECT_EQ(tarn_fri_set_init_bit(9), -1) << n;
    }
    EXPECT_EQ(current_fri.header.fri_group_count, 0u);
}

TEST(fri_show, an_entry_and_a_group_print) {
    pool_files pool;
    pool.set_fri(64, 7, 0x1235, 0xD000);
    stdout_capture out;
    EXPECT_EQ(dump_fri_group(64), 0);
    EXPECT_EQ(dump_fri_group(65), 0);
    EXPECT_EQ(out.text(),
              "TARN_INFO: FRI - group_num 64\n"
              "TARN_INFO: init[1] next 21474836487 freelisthead 291 free_count 4096\n"
              "TARN_INFO: FRI - group_num 65\n"
              "TARN_INFO: init[0] next 0 freelisthead 0 free_count 0\n");
}

TEST(fri_show, a_missing_entry_or_an_unreadable_group_is_logged) {
    pool_files pool;
    log_capture log;
    stdout_capture out;
    show_fri_entry(nullptr);
    EXPECT_EQ(dump_fri_group(~uint64_t{0}), -1);
    EXPECT_EQ(log.lines().front(), "ERR: show_fri_entry(#) NULL pointer of fri\n");
    EXPECT_EQ(log.lines().back(),
              "ERR: dump_fri_group(#) dump fri group 18446744073709551615 fail\n");
    EXPECT_EQ(out.text(), "");
}

TEST(fri_entries, the_first_reference_uses_the_extent_and_takes_it_from_the_free_count) {
    pool_files pool;
    pool.set_tbl(9, 0x7000);  // free, a tail, bits 13 and 14 reserved
    EXPECT_EQ(tbl_entry_ref_inc(9), 0);
    EXPECT_EQ(pool.tbl(9), 0xE001);
    EXPECT_EQ(current_fri.header.fri_free_count, 999999u);
    EXPECT_EQ(tbl_entry_ref_inc(9), 0);
    EXPECT_EQ(pool.tbl(9), 0xE002);
    EXPECT_EQ(current_fri.header.fri_free_count, 999999u);
    pool.reload();
    EXPECT_EQ(current_fri.header.fri_free_count, 1000000u);  // in memory only
}

TEST(fri_entries, a_free_count_of_0_stays_0_and_no_index_need_be_open) {
    pool_files pool;
    current_fri.header.fri_free_count = 0;
    EXPECT_EQ(tbl_entry_ref_inc(1), 0);
    EXPECT_EQ(current_fri.header.fri_free_count, 0u);
    close_fri();
    current_fri.header.fri_free_count = 5;
    EXPECT_EQ(tbl_entry_ref_inc(2), 0);
    EXPECT_EQ(current_fri.header.fri_free_count, 5u);
}

TEST(fri_entries, a_reference_to_4095_wraps_to_0) {
    pool_files pool;
    pool.set_tbl(3, 0x8FFF);
    EXPECT_EQ(tbl_entry_ref_inc(3), 0);
    EXPECT_EQ(pool.tbl(3), 0x8000);
    EXPECT_EQ(current_fri.header.fri_free_count, 1000000u);
}

TEST(fri_entries, a_reference_past_the_table_changes_nothing) {
    pool_files pool;
    log_capture log;
    EXPECT_EQ(tbl_entry_ref_inc(0x1F800000000), -1);
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: tbl_entry_ref_inc(#) no table holds lpa 2164663517184\n"}));
    EXPECT_EQ(current_fri.header.fri_free_count, 1000000u);
    const io_fault_at fault(1, EIO, {io_call::read});
    EXPECT_EQ(tbl_entry_ref_inc(1), -1);
    EXPECT_EQ(current_fri.header.fri_free_count, 1000000u);
}

TEST(fri_entries, extents_are_taken_from_the_free_count_of_an_open_index_down_to_0) {
    pool_files pool;
    fri_take_free(0);
    EXPECT_EQ(current_fri.header.fri_free_count, 1000000u);
    fri_take_free(999997);
    EXPECT_EQ(current_fri.header.fri_free_count, 3u);
    fri_take_free(4);
    EXPECT_EQ(current_fri.header.fri_free_count, 0u);
    close_fri();
    current_fri.header.fri_free_count = 5;
    fri_take_free(2);
    EXPECT_EQ(current_fri.header.fri_free_count, 5u);
}
