#include "tbl/tbl_entries.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <memory>

#include "fri/fri_file.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/pool_files.h"

TEST(tbl_entry, a_count_leaves_the_other_bits_and_used_clears_the_tail) {
    tbl_entry entry{0xF123};
    EXPECT_EQ(tbl_entry_count(&entry), 0x123);
    tbl_entry_set_count(&entry, 0x1FED);
    EXPECT_EQ(entry.word, 0xFFED);
    entry.word = 0x7005;
    tbl_entry_set_used(&entry);
    EXPECT_EQ(entry.word, 0xE005);
    EXPECT_TRUE(tbl_entry_is_used(&entry));
    tbl_entry_clear_used(&entry);
    EXPECT_EQ(entry.word, 0x6005);
    EXPECT_FALSE(tbl_entry_is_used(&entry));
}

TEST(tbl_entries, an_entry_is_written_into_its_block_whose_other_bytes_stay) {
    pool_files pool;
    pool.set_tbl(503, 0x1000);  // the last entry of block 1
    const uint8_t gap[4] = {0xa1, 0xa2, 0xa3, 0xa4};
    pool.tbl_file.write_at(1048576 + 512 + 504, gap);
    const tbl_entry entry{0x8005};

    EXPECT_EQ(tbl_entry_write(&entry, 253), 0);

    EXPECT_EQ(hex_of(pool.tbl_file.bytes(1048576 + 512, 4)), "00 00 05 80 ");
    EXPECT_EQ(hex_of(pool.tbl_file.bytes(1048576 + 512 + 502, 10)),  // sealed: 78a9e87a
              "00 10 a1 a2 a3 a4 7a e8 a9 78 ");
    EXPECT_EQ(pool.tbl_file.size(), 1048576u + 1024);
    tbl_entry read{0xFFFF};
    EXPECT_EQ(tbl_entry_read(&read, 253), 2);
    EXPECT_EQ(read.word, 0x8005);
}

TEST(tbl_entries, past_the_end_of_the_file_an_entry_reads_as_free) {
    pool_files pool;
    tbl_entry entry{0xFFFF};
    EXPECT_EQ(tbl_entry_read(&entry, 1000000), 0);
    EXPECT_EQ(entry.word, 0);
}

TEST(tbl_entries, reading_without_a_table_is_logged_and_leaves_the_entry) {
    log_capture log;
    tbl_entry entry{0x1234};
    EXPECT_EQ(tbl_entry_read(&entry, 0), 0);
    EXPECT_EQ(entry.word, 0x1234);
    const uint64_t failed = keep_journal_reasons().count;
    EXPECT_EQ(tbl_entry_write(&entry, 0), 0);
    EXPECT_EQ(keep_journal_reasons().count, failed + 1);
    EXPECT_EQ(log.lines(), log_lines({"ERR: tbl_entry_read(#) tbl file descriptor is invalid\n",
                                      "ERR: tbl_entry_write(#) tbl file descriptor is invalid\n"}));
}

TEST(tbl_entries, an_lpa_past_the_largest_offset_is_a_read_error) {
    pool_files pool;
    tbl_entry entry{0x1234};
    log_capture log;
    EXPECT_LT(tbl_entry_read(&entry, ~uint64_t{0}), 0);
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: read_fd(#) fail seek to 9223372036854775838\n",
                         "ERR: tbl_entry_read(#) tbl read error, lpa[18446744073709551615]\n"}));
}

TEST(tbl_entries, an_lpa_past_the_largest_table_is_not_written) {
    pool_files pool;
    const tbl_entry entry{0x8001};
    const uint64_t failed = keep_journal_reasons().count;
    log_capture log;
    EXPECT_EQ(tbl_entry_write(&entry, 0x1F800000000), 0);
    EXPECT_EQ(keep_journal_reasons().count, failed + 1);
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: tbl_entry_write(#) write tbl error, lpa 2164663517184\n"}));
    EXPECT_EQ(pool.tbl_file.size(), 1048576u);
}

TEST(tbl_entries, the_last_lpa_of_a_table_is_written_at_its_end) {
    pool_files pool;
    const tbl_entry entry{0x8001};
    EXPECT_EQ(tbl_entry_write(&entry, 0x1F7FFFFFFFF), 0);
    EXPECT_EQ(pool.tbl_file.size(), 0x40000100000u);
    EXPECT_EQ(pool.tbl(0x1F7FFFFFFFF), 0x8001);
}

TEST(tbl_entries, a_failing_write_returns_0_and_is_logged_and_counted_once) {
    pool_files pool;
    const tbl_entry entry{0x8001};
    const char* const lines[] = {
        "ERR: tbl_entry_write(#) read tbl error before write tbl entry, "
        "lpa 7\n",
        "ERR: tbl_entry_write(#) write tbl error, lpa 7\n"};
    pool.set_tbl(251, 0);
    pool.tbl_file.write_at(1048576 + 508, uint32_t{0});
    failed_calls failed;
    uint64_t n = 1;
    for (bool fired = true; fired; n++) {
        const uint64_t counted = keep_journal_reasons().count;
        log_capture log;
        const io_fault_at fault(n, EIO);
        EXPECT_EQ(tbl_entry_write(&entry, 7), 0);
        fired = failed.add(fault);
        EXPECT_EQ(keep_journal_reasons().count, counted + (fired ? 1 : 0)) << n;
        EXPECT_EQ(pool.tbl(7), fired ? 0 : 0x8001) << n;
        if (fired) {
            EXPECT_EQ(log.lines().back(), lines[n <= 2 ? 0 : 1]) << n;
        }
    }
    EXPECT_EQ(failed.in_order(), "seek read seek write");
}

TEST(tbl_entries, a_handle_reads_its_own_file_and_a_closed_one_is_an_error) {
    pool_files pool;
    pool.set_tbl(5, 0x8002);
    auto handle = std::make_unique<tbl_handle>();
    ASSERT_EQ(load_tbl_handle(handle.get(), pool.tbl_file.path()), 0);
    close_tbl();
    tbl_entry entry{};
    EXPECT_EQ(tbl_handle_entry_read(handle.get(), &entry, 5), 2);
    EXPECT_EQ(entry.word, 0x8002);
    EXPECT_EQ(tbl_handle_entry_read(handle.get(), &entry, 100000), 0);
    EXPECT_EQ(close_tbl_handle(handle.get()), 0);
    log_capture log;
    EXPECT_LT(tbl_handle_entry_read(handle.get(), &entry, 5), 0);
    EXPECT_EQ(log.lines(), log_lines({"ERR: read_fd(#) fd NULL pointer\n",
                                      "ERR: tbl_handle_entry_read(#) tbl read error, lpa[5]\n"}));
}

TEST(tbl_entries, a_recorded_entry_is_compared_whole_and_applied) {
    pool_files pool;
    pool.set_tbl(11, 0x9003);
    const tbl_entry same{0x9003};
    const tbl_entry other{0x8003};
    EXPECT_EQ(tbl_entry_check(&same, 11), 1);
    EXPECT_EQ(tbl_entry_check(&other, 11), 0);
    EXPECT_EQ(tbl_entry_replay(&other, 11), 0);
    EXPECT_EQ(pool.tbl(11), 0x8003);
    log_capture log;
    const io_fault_at fault(1, EIO, {io_call::read});
    EXPECT_EQ(tbl_entry_check(&same, 11), -1);
    EXPECT_EQ(log.lines(), log_lines({"ERR: tbl_entry_read(#) tbl read error, lpa[11]\n",
                                      "ERR: tbl_entry_check(#) tbl entry check fail, lpa 11\n"}));
}
