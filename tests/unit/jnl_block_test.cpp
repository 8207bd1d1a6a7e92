#include "jnl/jnl_block.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "jnl/jnl_file.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/jnl_builder.h"
#include "support/log_capture.h"

static jnl_block record_of(const raw_block& block) {
    jnl_block record;
    memcpy(&record, block.data(), sizeof record);
    return record;
}

class jnl_block_test : public testing::Test {
protected:
    jnl_block_test() {
        keep_journal_forget();
        history_.load();
    }
    std::string on_disk(uint64_t n) const {
        return hex_of(file_bytes(history_.journal.path(), (n + 2048) * 512, 512));
    }
    // Reads block `n`; returns the result and the lines that it logs.
    std::vector<std::string> read(uint64_t n, int expected) {
        log_.clear();
        memset(&block_, 0x55, sizeof block_);
        EXPECT_EQ(jnl_block_read(&block_, n), expected);
        return log_.lines();
    }

    raw_history history_{8};
    jnl_block block_;
    log_capture log_;
};

TEST_F(jnl_block_test, a_sound_block_is_read_whole_with_its_checksum_in_place) {
    history_.journal.put(3, file_block({tbl_record(POOL, 5, 0x8001)}));
    EXPECT_EQ(read(3, 512), log_lines({}));
    EXPECT_EQ(hex_of(block_), on_disk(3));
    EXPECT_NE(uint32_t{block_.checksum}, 0u);
}

TEST_F(jnl_block_test, a_damaged_block_is_minus_1_and_keeps_what_was_read) {
    history_.journal.put_damaged(3, file_block({}));
    EXPECT_EQ(read(3, -1), log_lines({"ERR: jnl_block_read(#) jnl checksum error @block 3\n"}));
    EXPECT_EQ(hex_of(block_), on_disk(3));
}

TEST_F(jnl_block_test, a_block_that_was_never_written_is_logged_as_such) {
    EXPECT_EQ(read(3, -1), log_lines({"jnl_block_read(#) jnl block all zero value @block 3\n"}));
    EXPECT_EQ(hex_of(block_), hex_of(std::vector<uint8_t>(512, 0)));
    // Also after the end of the file.
    EXPECT_EQ(read(1u << 30, -1),
              log_lines({"jnl_block_read(#) jnl block all zero value @block 1073741824\n"}));
}

TEST_F(jnl_block_test, bytes_without_a_checksum_are_a_damaged_block) {
    const uint8_t one = 1;
    write_file_bytes(history_.journal.path(), (3 + 2048) * 512 + 507, &one, 1);
    EXPECT_EQ(read(3, -1), log_lines({"ERR: jnl_block_read(#) jnl checksum error @block 3\n"}));
}

TEST_F(jnl_block_test, a_read_that_fails_leaves_zeros_and_keeps_the_journal) {
    history_.journal.put(3, file_block({}));
    io_fault_at fault(1, EIO, {io_call::read});
    EXPECT_EQ(read(3, -1), log_lines({"ERR: jnl_block_read(#) jnl read error, block_num[3]\n",
                                      "jnl_block_read(#) jnl block all zero value @block 3\n"}));
    EXPECT_EQ(hex_of(block_), hex_of(std::vector<uint8_t>(512, 0)));
    EXPECT_EQ(keep_journal_reasons().count, 1u);
}

TEST_F(jnl_block_test, a_read_that_ends_inside_the_block_is_a_failed_one) {
    history_.journal.put(3, file_block({tbl_record(POOL, 5, 0x8001)}));
    io_fault_at fault(1, 0, {io_call::read});
    EXPECT_EQ(read(3, -1), log_lines({"ERR: jnl_block_read(#) jnl read error, block_num[3]\n",
                                      "ERR: jnl_block_read(#) jnl checksum error @block 3\n"}));
    EXPECT_EQ(keep_journal_failures().count, 1u);
}

TEST_F(jnl_block_test, the_state_gives_the_reason_why_a_block_is_bad) {
    history_.journal.put(3, file_block({tbl_record(POOL, 5, 0x8001)}));
    history_.journal.put_damaged(4, file_block({tbl_record(POOL, 5, 0x8001)}));
    history_.load();
    EXPECT_EQ(jnl_block_get(&current_jnl, &block_, 3), jnl_block_state::good);
    EXPECT_EQ(jnl_block_get(&current_jnl, &block_, 4), jnl_block_state::damaged);
    EXPECT_EQ(jnl_block_get(&current_jnl, &block_, 5), jnl_block_state::empty);
    io_fault_at fault(1, EIO, {io_call::read});
    EXPECT_EQ(jnl_block_get(&current_jnl, &block_, 3), jnl_block_state::unread);
}

TEST_F(jnl_block_test, a_block_past_the_largest_offset_does_not_wrap_to_one_that_exists) {
    history_.journal.put(0, file_block({}));
    for (const uint64_t n : {~uint64_t{0}, ~uint64_t{0} - 2047, uint64_t{1} << 55}) {
        const std::vector<std::string> lines = read(n, -1);
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_EQ(lines[0], "ERR: read_fd(#) fail seek to 9223372036854775808\n");
        EXPECT_EQ(lines[1],
                  "ERR: jnl_block_read(#) jnl read error, block_num[" + std::to_string(n) + "]\n");
    }
}

TEST_F(jnl_block_test, counts_over_the_maxima_are_reported_and_the_block_is_read) {
    struct {
        raw_block block;
        std::vector<std::string> lines;
    } cases[] = {
        {xcopy_block(MAP, 0, 40, 0), {}},
        {xcopy_block(MAP, 0, 41, 0), {"xcopy.count 41"}},
        {moves_block(MAP, 0, 50, POOL, 0, 50, 0), {}},
        {moves_block(MAP, 0, 51, POOL, 0, 50, 0), {"moves.dst_count 51"}},
        {moves_block(MAP, 0, 50, POOL, 0, 51, 0), {"moves.src_count 51"}},
        {moves_block(MAP, 0, 60, POOL, 0, 60, 0), {"moves.dst_count 60", "moves.src_count 60"}},
        {unmap_block(MAP, 0, 43, 0), {}},
        {unmap_block(MAP, 0, 44, 0), {"unmap.count 44"}},
        {alloc_block(MAP, 0, 47, 0, POOL), {}},
        {alloc_block(MAP, 0, 48, 0, POOL), {"alloc.count 48"}},
    };
    for (const auto& test : cases) {
        history_.journal.put(2, test.block);
        std::vector<std::string> expected;
        for (const std::string& what : test.lines) {
            expected.push_back("ERR: tarn_jnl_block_d2m(#) blk->ej_block_history_" + what +
                               " is overflow\n");
        }
        EXPECT_EQ(read(2, 512), expected);
    }
}

TEST_F(jnl_block_test, a_file_block_of_9_entries_is_reported_read_and_checked_to_its_seventh) {
    std::vector<raw_entry> entries(7, raw_entry(1, POOL));
    entries[0] = raw_entry(0, POOL);
    entries[6] = raw_entry(9, POOL);
    history_.journal.put(2, file_block(entries).u8(12, 9));
    EXPECT_EQ(read(2, 512),
              log_lines({"ERR: tarn_jnl_block_d2m(#) blk->ej_header.entry_count 9 is overflow\n",
                         "ERR: tarn_jnl_block_entry_d2m(#) jnl block type 0 isn't reconginzed\n",
                         "ERR: tarn_jnl_block_entry_d2m(#) jnl block type 9 isn't reconginzed\n"}));
}

TEST_F(jnl_block_test, only_the_counted_entries_are_checked_after_reading) {
    history_.journal.put(2, file_block({raw_entry(4, MAP), raw_entry(0, MAP)}).u8(12, 1));
    EXPECT_EQ(read(2, 512), log_lines({}));
}

TEST_F(jnl_block_test, before_writing_all_seven_entries_are_checked_but_no_history_block) {
    const jnl_block one = record_of(file_block({raw_entry(4, MAP)}));
    tarn_jnl_block_m2d(&one);
    EXPECT_EQ(log_.lines(),
              std::vector<std::string>(
                  6, "ERR: tarn_jnl_block_entry_m2d(#) jnl block type 0 isn't reconginzed\n"));
    log_.clear();
    const jnl_block nine = record_of(file_block({7, raw_entry(4, MAP)}).u8(12, 9));
    tarn_jnl_block_m2d(&nine);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: tarn_jnl_block_m2d(#) blk->ej_header.entry_count 9 is overflow\n"}));
    log_.clear();
    for (const raw_block& block :
         {xcopy_block(MAP, 0, 99, 0), moves_block(MAP, 0, 99, MAP, 0, 99, 0),
          unmap_block(MAP, 0, 99, 0), alloc_block(MAP, 0, 99, 0, POOL)}) {
        const jnl_block history = record_of(block);
        tarn_jnl_block_m2d(&history);
    }
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(jnl_block_test, entry_types_1_to_4_are_known) {
    for (const uint32_t type : {0u, 1u, 2u, 3u, 4u, 5u, 0xFFFFFFFFu}) {
        jnl_file_entry entry;
        memcpy(&entry, raw_entry(type, POOL).data(), sizeof entry);
        const int expected = type >= 1 && type <= 4 ? 0 : -1;
        EXPECT_EQ(tarn_jnl_block_entry_d2m(&entry), expected) << type;
        EXPECT_EQ(tarn_jnl_block_entry_m2d(&entry), expected) << type;
    }
    EXPECT_EQ(log_.count("jnl block type 4294967295 isn't reconginzed\n"), 2u);
}

TEST(jnl_ring, neighbours_wrap_at_its_ends_and_nothing_overflows) {
    EXPECT_EQ(jnl_next_block(0, 3), 1u);
    EXPECT_EQ(jnl_next_block(2, 3), 0u);
    EXPECT_EQ(jnl_next_block(7, 3), 2u);
    EXPECT_EQ(jnl_next_block(0, 1), 0u);
    EXPECT_EQ(jnl_previous_block(0, 3), 2u);
    EXPECT_EQ(jnl_previous_block(2, 3), 1u);
    EXPECT_EQ(jnl_previous_block(7, 3), 0u);
    EXPECT_EQ(jnl_previous_block(0, 1), 0u);
    constexpr uint64_t most = ~uint64_t{0};
    EXPECT_EQ(jnl_next_block(most, most), 1u);
    EXPECT_EQ(jnl_next_block(most - 1, most), 0u);
    EXPECT_EQ(jnl_previous_block(0, most), most - 1);
    EXPECT_EQ(jnl_previous_block(most, most), most - 1);
}
