#include "jnl/jnl_walk.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "store/descriptor.h"
#include "support/io_faults.h"
#include "support/jnl_builder.h"
#include "support/log_capture.h"
#include "support/stdout_capture.h"

struct visited {
    std::string blocks;  // "number:id " each
    std::vector<uint64_t> ranks;
    int fail_at = -1;  // the visit that fails
};

static int note_block(void* context, const jnl_block* block, uint64_t block_num, uint64_t rank) {
    auto* seen = static_cast<visited*>(context);
    seen->blocks += std::to_string(block_num) + ":" +
                    std::to_string(uint32_t{block->ej_header.jnl_transid}) + " ";
    seen->ranks.push_back(rank);
    return static_cast<int>(seen->ranks.size()) == seen->fail_at ? 1 : 0;
}

class jnl_walk_test : public testing::Test {
protected:
    int walk() {
        const uint32_t budget = journal_sync_count();
        return jnl_walk_commits(&current_jnl, budget, "the_walk", note_block, &seen_);
    }

    visited seen_;
    stdout_capture out_;
    log_capture log_;
};

static const raw_block EMPTY = file_block({});

TEST_F(jnl_walk_test, blocks_are_visited_newest_first_and_ranked_so) {
    raw_history history(16, 14);
    history.commit({EMPTY, EMPTY});
    history.commit({EMPTY, EMPTY, EMPTY});
    history.commit(EMPTY);
    history.load();
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(seen_.blocks, "3:3 2:2 1:2 0:2 15:1 14:1 ");
    EXPECT_EQ(seen_.ranks, std::vector<uint64_t>({0, 128, 256, 384, 512, 640}));
    EXPECT_EQ(log_.lines(), log_lines({"jnl_block_read(#) jnl block all zero value @block 13\n"}));
}

TEST_F(jnl_walk_test, the_budget_counts_transactions) {
    raw_history history(300);
    for (int i = 0; i < 140; i++) {
        history.commit({EMPTY, EMPTY});
    }
    history.load();
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(seen_.ranks.size(), 2 * 128u);
    EXPECT_TRUE(seen_.blocks.ends_with(" 24:13 ")) << seen_.blocks;
    for (const uint32_t count : {1u, 3u}) {
        seen_ = {};
        history.set_sync_count(count);
        history.load();
        EXPECT_EQ(walk(), 0);
        EXPECT_EQ(seen_.ranks.size(), 2u * 2u * count);
    }
}

TEST_F(jnl_walk_test, fewer_transactions_than_the_budget_end_normally) {
    raw_history history(16);
    for (int i = 0; i < 3; i++) {
        history.commit(EMPTY);
    }
    history.load();
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(seen_.blocks, "2:3 1:2 0:1 ");
}

TEST_F(jnl_walk_test, a_full_ring_is_walked_once_around) {
    raw_history history(6);
    for (int i = 0; i < 8; i++) {
        history.commit({EMPTY, EMPTY});
    }
    history.load();
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(seen_.blocks, "3:8 2:8 1:7 0:7 5:6 4:6 ");
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(jnl_walk_test, a_transaction_whose_beginning_was_overwritten_ends_the_history) {
    raw_history history(6);
    history.commit({EMPTY, EMPTY, EMPTY, EMPTY});
    history.commit({EMPTY, EMPTY});
    history.commit(EMPTY);
    history.load();
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(seen_.blocks, "0:3 5:2 4:2 ");
}

TEST_F(jnl_walk_test, a_torn_newest_transaction_is_left_out) {
    raw_history history(16);
    history.commit(EMPTY);
    history.commit(EMPTY);
    history.journal.put(2, raw_block(3, 0, 0));
    history.set_newest(3, 2);
    history.load();
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(seen_.blocks, "1:2 0:1 ");
}

TEST_F(jnl_walk_test, an_unflagged_end_with_the_previous_id_is_walked_too) {
    raw_history history(16);
    history.commit({EMPTY, EMPTY});
    history.commit(EMPTY);
    history.journal.put(1, raw_block(1, 1, 0));
    history.load();
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(seen_.blocks, "2:2 1:1 0:1 ");
}

TEST_F(jnl_walk_test, nothing_to_process_is_0) {
    raw_history history(16);
    history.load();
    EXPECT_EQ(walk(), 0);
    history.set_newest(1, 0);  // the first one never completed
    history.load();
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(seen_.blocks, "");
}

TEST_F(jnl_walk_test, a_search_that_fails_fails_the_walk) {
    raw_history history(16);
    history.set_newest(9, 5);
    history.load();
    EXPECT_EQ(walk(), -1);
    EXPECT_EQ(log_.lines().back(), "ERR: the_walk(#) Can't determine the last complete commit\n");
    log_.clear();
    {
        const uint64_t none = 0;
        history.journal.set_meta(68, &none, sizeof none);
    }
    history.load();
    EXPECT_EQ(walk(), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: last_complete_commit(#) jnl_total_count is 0\n",
                         "ERR: the_walk(#) Can't determine the last complete commit\n"}));
    EXPECT_EQ(seen_.blocks, "");
}

TEST_F(jnl_walk_test, without_a_journal_the_walk_fails) {
    EXPECT_EQ(walk(), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: journal_sync_count(#) jnl file descriptor is invalid\n",
                         "ERR: last_complete_commit(#) jnl file descriptor is invalid\n",
                         "ERR: the_walk(#) Can't determine the last complete commit\n"}));
}

TEST_F(jnl_walk_test, a_visitor_that_fails_ends_the_walk) {
    raw_history history(16);
    history.commit({EMPTY, EMPTY});
    history.commit(EMPTY);
    history.load();
    seen_.fail_at = 2;
    EXPECT_EQ(walk(), -1);
    EXPECT_EQ(seen_.blocks, "2:2 1:1 ");
}

TEST_F(jnl_walk_test, a_damaged_block_inside_a_transaction_fails_the_walk) {
    raw_history history(16);
    history.commit({EMPTY, EMPTY, EMPTY});
    history.commit(EMPTY);
    history.load();
    // The searches read: the record, its start and last again, then 2, 2, 1, 0 on the way back.
    // The walk reads 3 once before that and 2 after it.
    io_fault_at fault(9, EIO, {io_call::read});
    EXPECT_EQ(walk(), -1);
    EXPECT_EQ(seen_.blocks, "3:2 ");
    EXPECT_EQ(log_.count("ERR: jnl_block_read(#) jnl read error, block_num[2]\n"), 1u);
}

// Two journals at once: blocks of one never appear in the other, whichever was opened last.
TEST_F(jnl_walk_test, the_walk_reads_the_journal_that_it_is_given) {
    raw_history one(16);
    one.commit(EMPTY);
    one.commit(EMPTY);
    raw_history other(16, 5, 9);
    other.commit(EMPTY);
    one.load();
    jnl_file first = current_jnl;
    current_jnl.fd = 0;  // owned by `first`
    other.load();
    EXPECT_EQ(jnl_walk_commits(&first, 8, "the_walk", note_block, &seen_), 0);
    EXPECT_EQ(seen_.blocks, "1:2 0:1 ");
    seen_ = {};
    EXPECT_EQ(jnl_walk_commits(&first, 1, "the_walk", note_block, &seen_), 0);
    EXPECT_EQ(seen_.blocks, "1:2 ");  // the caller gives the budget
    seen_ = {};
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(seen_.blocks, "5:9 ");
    io_close(first.fd);
}

TEST_F(jnl_walk_test, transactions_that_overlap_do_not_make_the_walk_endless) {
    raw_history history(3);
    history.journal.put(0, raw_block(7, 0, 0));
    history.journal.put(1, raw_block(7, 1, 1));
    history.journal.put(2, raw_block(7, 2, 1));
    history.set_newest(7, 0);
    history.load();
    EXPECT_EQ(walk(), -1);
    EXPECT_EQ(seen_.blocks, "1:7 0:7 2:7 ");
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: the_walk(#) more than 3 blocks to examine, block_num 1\n"}));
}

TEST_F(jnl_walk_test, a_ring_of_absurd_size_ends_at_blocks_past_the_largest_offset) {
    raw_history history(~uint64_t{0});
    history.commit(EMPTY);
    history.load();
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(seen_.blocks, "0:1 ");
    EXPECT_EQ(log_.count("jnl read error, block_num[18446744073709551614]\n"), 1u);
}
