#include "jnl/jnl_commit.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "jnl/jnl_file.h"
#include "support/io_faults.h"
#include "support/jnl_builder.h"
#include "support/log_capture.h"
#include "support/stdout_capture.h"

static constexpr uint16_t MORE = 0;
static constexpr uint16_t LAST = 1;

static std::string all_zero(uint64_t n) {
    return "jnl_block_read(#) jnl block all zero value @block " + std::to_string(n) + "\n";
}

static constexpr uint64_t TOTAL = 8;  // blocks of the ring

class jnl_commit_test : public testing::Test {
protected:
    ~jnl_commit_test() override { close_jnl(); }
    void put(uint64_t n, uint32_t id, uint16_t seq, uint16_t flags) {
        journal_.put(n, raw_block(id, seq, flags));
    }
    void set_newest(uint32_t id, uint64_t record) {
        journal_.set_meta(4164, &id, sizeof id);
        journal_.set_meta(4168, &record, sizeof record);
    }
    int last(uint64_t total = 8) {
        close_jnl();
        EXPECT_EQ(load_jnl(journal_.path()), 0);
        return last_complete_commit(&commit_, total);
    }
    // The n-th read of a block fails; error 0: it is short.
    int last_with_failing_read(uint64_t n, int error) {
        close_jnl();
        EXPECT_EQ(load_jnl(journal_.path()), 0);
        const io_fault_at fault(n, error, {io_call::read});
        const int result = last_complete_commit(&commit_, TOTAL);
        EXPECT_TRUE(fault.fired());
        return result;
    }
    int find(uint64_t n, uint64_t total = 8) {
        close_jnl();
        EXPECT_EQ(load_jnl(journal_.path()), 0);
        return find_complete_commit(n, &commit_, total);
    }
    int prev(uint64_t n, uint32_t id) {
        close_jnl();
        EXPECT_EQ(load_jnl(journal_.path()), 0);
        return prev_complete_commit(n, &commit_, 8, id);
    }
    // "start-last" of the transaction found, and the ids in its two blocks.
    std::string where() const {
        return std::to_string(commit_.start) + "-" + std::to_string(commit_.last) + " " +
               std::to_string(uint32_t{commit_.start_block.ej_header.jnl_transid}) + " " +
               std::to_string(uint32_t{commit_.last_block.ej_header.jnl_transid});
    }

    raw_journal journal_{TOTAL};
    jnl_commit commit_ = {};
    stdout_capture out_;
    log_capture log_;
};

TEST_F(jnl_commit_test, a_transaction_is_found_whole_from_any_of_its_blocks) {
    put(2, 7, 0, MORE);
    put(3, 7, 1, MORE);
    put(4, 7, 2, LAST);
    for (const uint64_t n : {2u, 3u, 4u}) {
        EXPECT_EQ(find(n), 0);
        EXPECT_EQ(where(), "2-4 7 7");
        EXPECT_EQ(uint16_t{commit_.start_block.ej_header.jnl_seq_num}, 0);
        EXPECT_EQ(uint16_t{commit_.last_block.ej_header.jnl_seq_num}, 2);
    }
    EXPECT_EQ(log_.lines(), log_lines({}));
    EXPECT_EQ(out_.text(), "");
}

TEST_F(jnl_commit_test, a_transaction_that_wraps_over_the_rings_end_is_found_whole) {
    put(6, 7, 0, MORE);
    put(7, 7, 1, MORE);
    put(0, 7, 2, MORE);
    put(1, 7, 3, LAST);
    for (const uint64_t n : {6u, 7u, 0u, 1u}) {
        EXPECT_EQ(find(n), 0);
        EXPECT_EQ(where(), "6-1 7 7");
    }
}

TEST_F(jnl_commit_test, a_gap_in_the_sequence_fails_the_search_in_both_directions) {
    put(0, 7, 0, MORE);
    put(1, 7, 1, MORE);
    put(2, 7, 3, LAST);
    EXPECT_EQ(find(2), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: commit_start_block(#) blk->ej_header.seq_num 1 is "
                                       "not match 2\n"}));
    log_.clear();
    EXPECT_EQ(find(1), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: commit_last_block(#) blk->ej_header.seq_num 3 is "
                                       "not match 2\n"}));
}

TEST_F(jnl_commit_test, another_id_ends_the_search_and_is_logged_by_the_forward_one_only) {
    put(0, 6, 0, MORE);
    put(1, 7, 1, MORE);
    EXPECT_EQ(find(1), -1);
    EXPECT_EQ(log_.lines(), log_lines({}));
    put(1, 7, 1, LAST);
    EXPECT_EQ(find(0), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: commit_last_block(#) blk->jnl_transid 7 is not match 6\n"}));
}

TEST_F(jnl_commit_test, the_sequence_number_wraps_from_65535_to_0) {
    put(0, 7, 65535, MORE);
    put(1, 7, 0, LAST);
    close_jnl();
    ASSERT_EQ(load_jnl(journal_.path()), 0);
    uint64_t pos = 0;
    jnl_block block;
    EXPECT_EQ(commit_last_block(&pos, &block, 8), 0);
    EXPECT_EQ(pos, 1u);
}

TEST_F(jnl_commit_test, only_flags_1_end_a_transaction) {
    put(0, 7, 0, 3);
    put(1, 7, 1, LAST);
    EXPECT_EQ(find(0), 0);
    EXPECT_EQ(where(), "0-1 7 7");
}

TEST_F(jnl_commit_test, a_search_gives_up_after_one_lap) {
    // 65536 blocks of one transaction, every sequence number once, no last one.
    constexpr uint64_t total = 65536;
    journal_.set_meta(68, &total, sizeof total);
    for (uint64_t n = 0; n < total; n++) {
        put(n, 7, static_cast<uint16_t>(n), MORE);
    }
    EXPECT_EQ(find(5, total), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: commit_last_block(#) no last block in a lap of 65536 blocks\n"}));
    log_.clear();
    // Backward: a block outside of the ring that continues what is in it.
    put(0, 8, 1, MORE);
    put(9, 8, 2, LAST);
    uint64_t pos = 9;
    jnl_block block;
    EXPECT_EQ(commit_start_block(&pos, &block, 1), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: commit_start_block(#) no start block in a lap of 1 blocks\n"}));
}

TEST_F(jnl_commit_test, the_size_of_an_empty_ring_is_never_a_divisor) {
    put(0, 7, 1, MORE);
    EXPECT_EQ(find(0, 0), -1);
    put(0, 7, 0, MORE);
    EXPECT_EQ(find(0, 0), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: commit_start_block(#) no start block in a lap of 0 blocks\n",
                         "ERR: commit_last_block(#) no last block in a lap of 0 blocks\n"}));
}

TEST_F(jnl_commit_test, without_a_journal_every_search_fails) {
    EXPECT_EQ(find_complete_commit(0, &commit_, 8), -1);
    EXPECT_EQ(prev_complete_commit(0, &commit_, 8, 1), -1);
    EXPECT_EQ(last_complete_commit(&commit_, 8), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: find_complete_commit(#) jnl file descriptor is invalid\n",
                         "ERR: prev_complete_commit(#) jnl file descriptor is invalid\n",
                         "ERR: last_complete_commit(#) jnl file descriptor is invalid\n"}));
}

TEST_F(jnl_commit_test, the_previous_transaction_ends_flagged_or_with_the_previous_id) {
    put(2, 6, 0, MORE);
    put(3, 6, 1, LAST);
    EXPECT_EQ(prev(3, 9), 0);  // flagged: with any id
    EXPECT_EQ(where(), "2-3 6 6");
    put(3, 6, 1, MORE);
    EXPECT_EQ(prev(3, 7), 0);  // not flagged: the id before
    EXPECT_EQ(where(), "2-3 6 6");
    EXPECT_EQ(prev(3, 6), -1);
    EXPECT_EQ(prev(3, 8), -1);
    put(3, 0xFFFFFFFF, 0, MORE);
    EXPECT_EQ(prev(3, 0), 0);  // ids wrap from the highest to 0
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(jnl_commit_test, the_previous_transaction_is_flagged_by_1_and_no_other_value) {
    put(2, 6, 0, MORE);
    for (const uint16_t flags : std::vector<uint16_t>{3, 0x8001, 2, 0xFFFF}) {
        put(3, 6, 1, flags);
        EXPECT_EQ(prev(3, 9), -1) << flags;
        EXPECT_EQ(prev(3, 7), 0) << flags;  // the id before needs no flag
    }
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(jnl_commit_test, the_previous_transaction_needs_a_readable_end_and_a_start) {
    EXPECT_EQ(prev(3, 7), -1);
    EXPECT_EQ(log_.lines(), log_lines({all_zero(3)}));
    log_.clear();
    put(3, 6, 1, LAST);
    EXPECT_EQ(prev(3, 7), -1);
    EXPECT_EQ(log_.lines(), log_lines({all_zero(2)}));
}

TEST_F(jnl_commit_test, a_journal_that_was_never_used_holds_nothing) {
    put(0, 1, 0, LAST);  // not read
    const uint64_t none = 0;
    for (const uint64_t total : {uint64_t{8}, none}) {
        io_fault_at fault(0, 0, {io_call::read});
        close_jnl();
        ASSERT_EQ(load_jnl(journal_.path()), 0);
        const uint64_t reads = fault.calls();
        EXPECT_EQ(last_complete_commit(&commit_, total), 0);
        EXPECT_EQ(fault.calls(), reads);
    }
    EXPECT_EQ(out_.text(), "");
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(jnl_commit_test, any_of_five_fields_marks_the_journal_as_used) {
    put(0, 0, 0, LAST);
    const uint64_t five = 5;
    for (const auto& [at, len] : std::vector<std::pair<uint64_t, size_t>>{
             {4164, 4}, {4168, 8}, {4176, 4}, {4180, 4}, {4184, 8}}) {
        const uint64_t nothing = 0;
        journal_.set_meta(at, &five, len);
        EXPECT_NE(last(), 0) << at;
        journal_.set_meta(at, &nothing, len);
    }
}

TEST_F(jnl_commit_test, a_used_journal_without_blocks_fails) {
    set_newest(1, 0);
    EXPECT_EQ(last(0), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: last_complete_commit(#) jnl_total_count is 0\n"}));
}

TEST_F(jnl_commit_test, the_record_that_the_header_names_is_the_newest) {
    put(2, 7, 0, MORE);
    put(3, 7, 1, LAST);
    set_newest(7, 2);
    EXPECT_EQ(last(), 1);
    EXPECT_EQ(where(), "2-3 7 7");
    EXPECT_EQ(out_.text(),
              "TARN_INFO: jnl_last_record_start = 2\n"
              "TARN_INFO: JOURNAL-LAST-COMMIT from 2 (id=7) to 3 (id=7)\n");
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(jnl_commit_test, a_torn_newest_transaction_falls_back_to_the_previous_one) {
    put(1, 6, 0, LAST);
    put(2, 7, 0, MORE);
    set_newest(7, 2);
    EXPECT_EQ(last(), 1);
    EXPECT_EQ(where(), "1-1 6 6");
    EXPECT_EQ(log_.lines(), log_lines({all_zero(3),
                                       "ERR: last_complete_commit(#) JOURNAL-CONFLICT Can't find "
                                       "out last complete commit, @block 2\n"}));
}

TEST_F(jnl_commit_test, one_incomplete_transaction_is_tolerated_but_not_a_second_one) {
    put(1, 5, 0, LAST);  // 6 is missing
    put(2, 7, 0, MORE);
    set_newest(7, 2);
    EXPECT_EQ(last(), -1);
    EXPECT_EQ(log_.lines().back(),
              "ERR: last_complete_commit(#) JOURNAL-CONFLICT Can't find out last complete commit, "
              "trans_id 5 @block_num 1 is not equal to trans_id 6\n");
    log_.clear();
    put(1, 6, 0, MORE);  // 6 is torn as well
    EXPECT_EQ(last(), -1);
    EXPECT_EQ(log_.count("JOURNAL-CONFLICT Can't find out last complete commit, @block 2\n"), 1u);
    EXPECT_EQ(log_.count("JOURNAL-CONFLICT Can't find out last complete commit, @block 1\n"), 1u);
}

TEST_F(jnl_commit_test, the_search_starts_one_block_before_a_record_that_was_never_written) {
    put(1, 7, 0, MORE);
    put(2, 7, 1, LAST);
    set_newest(7, 3);
    EXPECT_EQ(last(), 1);
    EXPECT_EQ(where(), "1-2 7 7");
    EXPECT_EQ(out_.text(),
              "TARN_INFO: jnl_last_record_start = 3\n"
              "TARN_INFO: Re-Search last commit from 2\n"
              "TARN_INFO: JOURNAL-LAST-COMMIT from 1 (id=7) to 2 (id=7)\n");
    EXPECT_EQ(log_.lines(), log_lines({all_zero(3)}));
}

TEST_F(jnl_commit_test, the_search_one_block_before_wraps_and_falls_back_only_once) {
    put(6, 6, 0, LAST);
    put(7, 7, 0, MORE);
    set_newest(8, 0);
    EXPECT_EQ(last(), 1);
    EXPECT_EQ(where(), "6-6 6 6");
}

TEST_F(jnl_commit_test, a_damaged_record_fails_at_once) {
    put(1, 6, 0, LAST);
    journal_.put_damaged(2, raw_block(7, 0, LAST));
    set_newest(7, 2);
    EXPECT_EQ(last(), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: jnl_block_read(#) jnl checksum error @block 2\n",
                                       "ERR: last_complete_commit(#) Can't read last jnl "
                                       "commit\n"}));
    log_.clear();
    set_newest(7, 3);  // never written, and the damaged one before it
    EXPECT_EQ(last(), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({all_zero(3), "ERR: jnl_block_read(#) jnl checksum error @block 2\n",
                         "ERR: last_complete_commit(#) Can't read last jnl commit\n"}));
}

TEST_F(jnl_commit_test, an_unwritten_record_after_an_unwritten_block_is_a_conflict) {
    set_newest(7, 3);
    EXPECT_EQ(last(), -1);
    EXPECT_EQ(log_.lines(), log_lines({all_zero(3), all_zero(2)}));
}

TEST_F(jnl_commit_test,
       a_record_of_another_transaction_is_a_conflict_that_the_previous_one_resolves) {
    put(2, 6, 0, LAST);
    put(3, 12, 0, LAST);
    set_newest(7, 3);
    EXPECT_EQ(last(), 1);
    EXPECT_EQ(where(), "2-2 6 6");
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: last_complete_commit(#) JOURNAL-CONFLICT trans_id 12 @block 3 is "
                         "not equal to jnl_last_trans_id 7 @jnl_last_record_start 3\n"}));
    log_.clear();
    put(1, 5, 0, MORE);
    put(2, 5, 1, LAST);
    EXPECT_EQ(last(), -1);
    EXPECT_EQ(log_.lines().back(),
              "ERR: last_complete_commit(#) Can't find out last complete commit, trans_id 5 "
              "@block_num 1 is not equal to trans_id 6\n");
    put(2, 6, 0, MORE);
    EXPECT_EQ(last(), -1);
    EXPECT_EQ(log_.lines().back(),
              "ERR: last_complete_commit(#) Can't find out last complete commit @block 2\n");
}

TEST_F(jnl_commit_test, a_first_transaction_that_never_completed_is_nothing_to_process) {
    set_newest(1, 0);
    EXPECT_EQ(last(), 0);  // nothing written
    put(0, 1, 0, MORE);
    EXPECT_EQ(last(), 0);  // torn
    put(0, 3, 0, LAST);
    EXPECT_EQ(last(), 0);  // of another transaction
    journal_.put_damaged(0, raw_block(1, 0, LAST));
    EXPECT_EQ(last(), -1);  // but not a damaged one
    set_newest(1, 1);
    put(0, 1, 0, MORE);
    EXPECT_EQ(last(), -1);
    set_newest(2, 0);
    EXPECT_EQ(last(), -1);
}

TEST_F(jnl_commit_test, a_record_at_or_past_the_end_of_the_ring_is_an_absurd_header) {
    put(TOTAL - 1, 7, 0, LAST);
    set_newest(7, TOTAL - 1);
    EXPECT_EQ(last(), 1);
    for (const uint64_t record : {TOTAL, TOTAL + 3, ~uint64_t{0}}) {
        put(record % TOTAL, 7, 0, LAST);
        set_newest(7, record);
        log_.clear();
        EXPECT_EQ(last(), -1);
        EXPECT_EQ(log_.lines(), log_lines({"ERR: last_complete_commit(#) jnl_last_record_start " +
                                           std::to_string(record) + " is past the ring of " +
                                           std::to_string(TOTAL) + " blocks\n"}));
    }
}

// The newest transaction, in blocks 4 and 5, is there; one of the blocks cannot be read, and an
// older complete transaction must not be taken for the newest.
TEST_F(jnl_commit_test, a_block_that_cannot_be_read_is_not_one_that_was_never_written) {
    put(3, 6, 0, LAST);
    put(4, 7, 0, MORE);
    put(5, 7, 1, LAST);
    set_newest(7, 4);
    EXPECT_EQ(last(), 1);
    for (const int error : {EIO, 0}) {               // 0: the read is short
        for (const uint64_t n : {1u, 2u, 3u, 4u}) {  // record, start, first and last block
            log_.clear();
            EXPECT_EQ(last_with_failing_read(n, error), -1) << n;
            EXPECT_EQ(log_.last(), "ERR: last_complete_commit(#) Can't read last jnl commit\n");
        }
    }
    set_newest(8, 6);  // never written: the search continues before it
    EXPECT_EQ(last(), 1);
    log_.clear();
    EXPECT_EQ(last_with_failing_read(2, EIO), -1);
    EXPECT_EQ(log_.last(), "ERR: last_complete_commit(#) Can't read last jnl commit\n");
}

TEST_F(jnl_commit_test, trace_lines_are_printed_only_if_the_switch_is_clear) {
    put(2, 6, 0, LAST);
    put(3, 7, 0, LAST);
    EXPECT_EQ(jnl_search_quiet, 1);
    EXPECT_EQ(find(3), 0);
    EXPECT_EQ(prev(2, 7), 0);
    EXPECT_EQ(out_.text(), "");
    jnl_search_quiet = 0;
    EXPECT_EQ(find(3), 0);
    EXPECT_EQ(prev(2, 7), 0);
    EXPECT_EQ(find(5), -1);
    EXPECT_EQ(prev(5, 7), -1);
    put(2, 6, 0, MORE);
    EXPECT_EQ(find(2), -1);
    EXPECT_EQ(prev(2, 9), -1);
    put(2, 6, 1, LAST);
    EXPECT_EQ(prev(2, 9), -1);
    jnl_search_quiet = 1;
    EXPECT_EQ(out_.text(),
              "MESG: search start block from 3\n"
              "MESG: search last block from 3\n"
              "MESG: blk-trans_id 6, jnl-last-trans_id 0\n"
              "MESG: search start block from 2\n"
              "MESG: search start block from 2\n"
              "MESG: ## Found @start_num 2 @last_num 2\n"
              "MESG: search start block from 5\n"
              "MESG: No start block in this commit, block_num 5\n"
              "MESG: Can't read jnl commit, @block 5\n"
              "MESG: search start block from 2\n"
              "MESG: search last block from 2\n"
              "MESG: No last block in this commit, block_num 2\n"
              "MESG: blk-trans_id 6, jnl-last-trans_id 0\n"
              "MESG: No last block in this commit, @last_num 2\n"
              "MESG: blk-trans_id 6, jnl-last-trans_id 0\n"
              "MESG: search start block from 2\n"
              "MESG: search start block from 2\n"
              "MESG: No start block in this commit, @start_num 1\n");
}
