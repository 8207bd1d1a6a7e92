#include "jnl/jnl_block_cache.h"

#include <cstring>
#include <gtest/gtest.h>

#include "jnl/jnl_block.h"
#include "jnl/jnl_file.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/jnl_builder.h"
#include "support/log_capture.h"

// The distance between two blocks that share a place in the cache.
static constexpr uint64_t SAME_PLACE = 16384;
static constexpr uint64_t HIGHEST = ~uint64_t{0};

static raw_block recording(uint16_t word) {
    return file_block({tbl_record(POOL, 5, word)});
}

class jnl_block_cache_test : public testing::Test {
protected:
    jnl_block_cache_test() { history_.load(); }

    // Block `n` is read as the file of the open journal holds it.
    static void expect_read(const raw_history& history, uint64_t n) {
        jnl_block block;
        EXPECT_EQ(jnl_block_read(&block, n), 512);
        EXPECT_EQ(hex_of(block), hex_of(file_bytes(history.journal.path(), (n + 2048) * 512, 512)));
    }
    // The number of transfers to read block `n`.
    static uint64_t reads_of(uint64_t n) {
        const io_fault_at count(0, 0, {io_call::read});
        jnl_block block;
        (void)jnl_block_read(&block, n);
        return count.calls();
    }

    raw_history history_{8};
    log_capture log_;
};

TEST_F(jnl_block_cache_test, keeps_a_block_as_long_as_the_outermost_object_lives) {
    history_.journal.put(3, recording(0x8001));
    EXPECT_EQ(reads_of(3), 1u);
    EXPECT_EQ(reads_of(3), 1u);
    {
        const jnl_keep_blocks outer(&current_jnl);
        EXPECT_EQ(reads_of(3), 1u);
        {
            const jnl_keep_blocks inner(&current_jnl);
            EXPECT_EQ(reads_of(3), 0u);
        }
        EXPECT_EQ(reads_of(3), 0u);
        expect_read(history_, 3);
    }
    EXPECT_EQ(reads_of(3), 1u);
}

TEST_F(jnl_block_cache_test, does_not_confuse_two_blocks_that_share_a_place) {
    history_.journal.put(3, recording(0x8001));
    history_.journal.put(3 + SAME_PLACE, recording(0x8002));
    const jnl_keep_blocks keep_blocks(&current_jnl);
    for (unsigned round = 0; round < 2; round++) {
        expect_read(history_, 3);
        expect_read(history_, 3 + SAME_PLACE);
    }
}

TEST_F(jnl_block_cache_test, does_not_confuse_the_blocks_of_two_journals) {
    history_.journal.put(3, recording(0x8001));
    raw_history other(8);
    other.journal.put(3, recording(0x8002));
    const jnl_keep_blocks keep_blocks(&current_jnl);
    for (unsigned round = 0; round < 2; round++) {
        history_.load();
        expect_read(history_, 3);
        other.load();
        expect_read(other, 3);
    }
}

TEST_F(jnl_block_cache_test, keeps_blocks_while_one_journal_is_closed_and_opened) {
    history_.journal.put(3, recording(0x8001));
    const jnl_keep_blocks keep_blocks(&current_jnl);
    history_.load();
    EXPECT_EQ(reads_of(3), 1u);
    history_.load();
    EXPECT_EQ(reads_of(3), 0u);
}

TEST_F(jnl_block_cache_test, never_keeps_a_block_whose_read_was_logged) {
    history_.journal.put_damaged(3, recording(0x8001));
    history_.journal.put(4, unmap_block(MAP, 0, 255, 0));  // counts more entries than it holds
    const jnl_keep_blocks keep_blocks(&current_jnl);
    for (const uint64_t n : {2, 3, 4}) {  // 2 was never written
        log_.clear();
        EXPECT_EQ(reads_of(n), 1u) << n;
        const std::vector<std::string> first = log_.lines();
        EXPECT_EQ(first.size(), 1u) << n;
        log_.clear();
        EXPECT_EQ(reads_of(n), 1u) << n;
        EXPECT_EQ(log_.lines(), first) << n;
    }
}

// The number after the highest is 0: an empty place must not be mistaken for that block.
TEST(jnl_block_cache_alone, the_highest_number_is_not_found_before_it_was_kept) {
    const jnl_block_cache cache;
    jnl_block block = {};
    EXPECT_FALSE(cache.get(HIGHEST, &block));
}

TEST(jnl_block_cache_alone, the_highest_number_is_kept_like_any_other) {
    jnl_block_cache cache;
    const raw_block kept = recording(0x8001);
    jnl_block put;
    memcpy(&put, kept.data(), sizeof put);
    cache.put(HIGHEST, &put);
    jnl_block block = {};
    EXPECT_TRUE(cache.get(HIGHEST, &block));
    EXPECT_EQ(hex_of(block), hex_of(put));
    EXPECT_FALSE(cache.get(HIGHEST % SAME_PLACE, &block));
}

// A journal without the object reads its file, even while blocks of another one are kept.
TEST_F(jnl_block_cache_test, keeps_no_block_of_a_journal_without_the_object) {
    history_.journal.put(3, recording(0x8001));
    jnl_file plain = current_jnl;  // the same open file
    const jnl_keep_blocks keep_blocks(&current_jnl);
    EXPECT_EQ(reads_of(3), 1u);
    EXPECT_EQ(reads_of(3), 0u);
    const io_fault_at count(0, 0, {io_call::read});
    jnl_block block;
    EXPECT_EQ(jnl_block_read(&plain, &block, 3), 512);
    EXPECT_EQ(count.calls(), 1u);
}
