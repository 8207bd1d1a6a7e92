#include "jnl/jnl_check.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "map/map_file.h"
#include "support/io_faults.h"
#include "support/jnl_builder.h"
#include "support/log_capture.h"
#include "support/sample_maps.h"
#include "support/stdout_capture.h"

enum : int32_t { TBL_FILE = 1, FRI_FILE = 2, VAR0 = 3, MAP_FILE = 4 };

static std::string blames(int type, uint64_t block, int entry) {
    return "ERR: jnl_file_type_check(#) check " + std::to_string(type) +
           " type file not match, block_num " + std::to_string(block) + " entry " +
           std::to_string(entry) + "\n";
}

static std::string differs(int type) {
    return "ERR: jnl_file_type_check(#) check " + std::to_string(type) + " type file not match\n";
}

class jnl_check_test : public testing::Test {
protected:
    int check(int32_t type) {
        history_.load();
        log_.clear();
        const int result = jnl_file_type_check(type);
        // Every walk below begins at block 1, so each reads block 0, which was never written.
        lines_.clear();
        for (const std::string& line : log_.lines()) {
            if (line != "jnl_block_read(#) jnl block all zero value @block 0\n") {
                lines_.push_back(line);
            }
        }
        return result;
    }
    void set_counts(uint64_t mapped) {
        history_.load();
        set_header_u64(files_.map_path, 4096, 4100, mapped);
        close_map();
        ASSERT_EQ(load_map(files_.map_path.c_str()), 0);
    }

    journalled_files files_;
    raw_history history_{64, 1};
    stdout_capture out_;
    log_capture log_;
    std::vector<std::string> lines_;
};

TEST_F(jnl_check_test, a_table_that_holds_every_recorded_entry_matches) {
    files_.pool.set_tbl(5, 0x8001);
    files_.pool.set_tbl(300, 0x9002);
    history_.commit(file_block({tbl_record(POOL, 5, 0x8001), tbl_record(POOL, 300, 0x9002)}));
    EXPECT_EQ(check(TBL_FILE), 0);
    EXPECT_EQ(lines_, log_lines({}));
}

TEST_F(jnl_check_test, the_first_entry_that_differs_is_named_and_ends_the_check) {
    history_.commit(file_block({tbl_record(POOL, 5, 0x8001)}));
    history_.commit({file_block({}), file_block({tbl_record(POOL, 7, 0), tbl_record(POOL, 5, 1),
                                                 tbl_record(POOL, 6, 0)})});
    EXPECT_EQ(check(TBL_FILE), -1);
    EXPECT_EQ(lines_, log_lines({differs(1), blames(1, 3, 1)}));
}

TEST_F(jnl_check_test, only_the_newest_image_of_a_key_is_compared) {
    files_.pool.set_tbl(5, 0x8003);
    files_.pool.set_fri(2, 1, 2, 0x8003);
    files_.set_map(9, MAPPED | 4);
    set_counts(1);
    const uint64_t fri_word = 0x8003000200000001;
    history_.commit(file_block(
        {tbl_record(POOL, 5, 0x8001), fri_record(POOL, 2, 0, 0), map_record(MAP, 9, 0, 1)}));
    history_.commit(file_block({tbl_record(POOL, 5, 0x8002), tbl_record(POOL, 5, 0x8003),
                                fri_record(POOL, 2, 0, 7), fri_record(POOL, 2, 0, fri_word),
                                map_record(MAP, 9, 7, 1), map_record(MAP, 9, MAPPED | 4, 1)}));
    for (const int32_t type : {TBL_FILE, FRI_FILE, MAP_FILE}) {
        EXPECT_EQ(check(type), 0) << type;
        EXPECT_EQ(lines_, log_lines({}));
    }
}

TEST_F(jnl_check_test, an_index_entry_that_differs_fails) {
    files_.pool.set_fri(2, 1, 2, 0x8003);
    history_.commit(file_block({fri_record(POOL, 2, 0, 0x8003000200000002)}));
    EXPECT_EQ(check(FRI_FILE), -1);
    EXPECT_EQ(lines_, log_lines({differs(2), blames(2, 1, 0)}));
}

TEST_F(jnl_check_test, only_the_newest_counters_of_the_index_are_compared) {
    history_.commit(file_block({var0_record(POOL, 1, 2)}));
    history_.commit(file_block({var0_record(POOL, 3, 4), var0_record(POOL, 1000000, 0)}));
    EXPECT_EQ(check(FRI_FILE), 0);  // the counters of the header match
    history_.commit(file_block({var0_record(POOL, 1000000, 1)}));
    EXPECT_EQ(check(FRI_FILE), -1);
    EXPECT_EQ(lines_, log_lines({differs(2), blames(2, 3, 0)}));
    history_.commit(file_block({var0_record(POOL, 999999, 0)}));
    EXPECT_EQ(check(FRI_FILE), -1);
    EXPECT_EQ(lines_, log_lines({differs(2), blames(2, 4, 0)}));
}

TEST_F(jnl_check_test, the_mapped_count_of_the_newest_entry_is_compared_once_and_first) {
    files_.set_map(9, MAPPED | 4);
    set_counts(6);
    history_.commit(file_block({map_record(MAP, 8, 0, 5), map_record(MAP, 9, MAPPED | 4, 6)}));
    EXPECT_EQ(check(MAP_FILE), 0);
    history_.commit(
        file_block({map_record(MAP, 9, MAPPED | 4, 7), map_record(ELSEWHERE, 9, 0, 8)}));
    EXPECT_EQ(check(MAP_FILE), -1);
    EXPECT_EQ(lines_, log_lines({"ERR: jnl_file_type_check(#) MAP mapped_count is not match new 7 "
                                 "current 6\n",
                                 differs(4), blames(4, 2, 0)}));
}

TEST_F(jnl_check_test, a_map_entry_that_differs_fails) {
    history_.commit(file_block({map_record(MAP, 9, MAPPED | 4, 0)}));
    EXPECT_EQ(check(MAP_FILE), -1);
    EXPECT_EQ(lines_, log_lines({differs(4), blames(4, 1, 0)}));
}

TEST_F(jnl_check_test, entries_of_other_files_and_other_types_never_fail) {
    history_.commit(file_block({tbl_record(ELSEWHERE, 5, 1), fri_record(ELSEWHERE, 5, 0, 1),
                                var0_record(ELSEWHERE, 1, 1), map_record(ELSEWHERE, 1, 1, 1)}));
    for (const int32_t type : {TBL_FILE, FRI_FILE, VAR0, MAP_FILE}) {
        EXPECT_EQ(check(type), 0) << type;
    }
    // The table and the index of a pool share one uuid.
    history_.commit(file_block({fri_record(POOL, 5, 0, 1), var0_record(POOL, 1, 1),
                                raw_entry(5, POOL), raw_entry(0xFFFFFFFF, POOL)}));
    EXPECT_EQ(check(TBL_FILE), 0);
    history_.commit(file_block({tbl_record(POOL, 5, 1), raw_entry(4, POOL)}));
    EXPECT_EQ(check(MAP_FILE), 0);
}

TEST_F(jnl_check_test, type_3_compares_the_counters_alone) {
    history_.commit(file_block({fri_record(POOL, 5, 0, 1), var0_record(POOL, 1000000, 0)}));
    EXPECT_EQ(check(VAR0), 0);
    history_.commit(file_block({var0_record(POOL, 1, 0)}));
    EXPECT_EQ(check(VAR0), -1);
    EXPECT_EQ(lines_, log_lines({differs(3), blames(3, 2, 0)}));
}

TEST_F(jnl_check_test, history_blocks_have_no_entries_to_compare) {
    history_.commit({xcopy_block(MAP, 0, 1, 9), moves_block(MAP, 0, 1, MAP, 5, 1, 9),
                     unmap_block(MAP, 0, 0, 9), alloc_block(MAP, 0, 1, 9, POOL)});
    for (const int32_t type : {TBL_FILE, FRI_FILE, MAP_FILE}) {
        EXPECT_EQ(check(type), 0) << type;
    }
}

TEST_F(jnl_check_test, eight_entries_fail_the_check_whatever_they_are) {
    history_.commit(file_block({}).u8(12, 8));
    for (const int32_t type : {TBL_FILE, FRI_FILE, MAP_FILE}) {
        EXPECT_EQ(check(type), -1) << type;
        EXPECT_EQ(lines_.back(), "ERR: jnl_file_type_check(#) entry count 8 large than 7\n");
    }
    // Even in a history block: the block type is not checked.
    raw_history other(64, 1);
    other.commit(xcopy_block(MAP, 0, 0, 0).u8(12, 8));
    other.load();
    EXPECT_EQ(jnl_file_type_check(TBL_FILE), -1);
}

TEST_F(jnl_check_test, a_type_without_a_file_is_refused_at_the_first_entry) {
    history_.commit(file_block({}));
    EXPECT_EQ(check(7), 0);
    history_.commit(file_block({tbl_record(POOL, 5, 0), tbl_record(POOL, 6, 0)}));
    for (const int32_t type : {0, 5, -1}) {
        EXPECT_EQ(check(type), -1);
        EXPECT_EQ(lines_, log_lines({"ERR: jnl_file_type_check(#) Not support " +
                                         std::to_string(type) + " type file jnl check\n",
                                     blames(type, 2, 1)}));
    }
}

TEST_F(jnl_check_test, an_entry_that_no_map_can_hold_fails) {
    history_.commit(file_block({map_record(MAP, ~uint64_t{0}, 0, 0)}));
    EXPECT_EQ(check(MAP_FILE), -1);
    EXPECT_EQ(lines_.back(), blames(4, 1, 0));
}

TEST_F(jnl_check_test, whichever_read_fails_a_difference_that_was_reached_is_found) {
    const std::string unreadable = "ERR: jnl_file_type_check(#) fail check 4 type file\n";
    history_.commit(file_block({map_record(MAP, 9, 0, 0)}));
    uint64_t logged = 0;
    for (uint64_t n = 1;; n++) {
        ASSERT_LT(n, 100u);
        close_map();  // its cache would avoid the read
        ASSERT_EQ(load_map(files_.map_path.c_str()), 0);
        history_.load();
        log_.clear();
        io_fault_at fault(n, EIO, {io_call::read});
        const int result = jnl_file_type_check(MAP_FILE);
        if (!fault.fired()) {
            EXPECT_EQ(result, 0);
            break;
        }
        if (log_.has("map entry check fail, lea 9\n")) {
            logged++;
            EXPECT_EQ(result, -1);
            EXPECT_EQ(log_.count(unreadable), 1u);
            EXPECT_EQ(log_.lines().back(), blames(4, 1, 0));
        }
    }
    EXPECT_EQ(logged, 1u);
}

TEST_F(jnl_check_test, nothing_is_written) {
    files_.pool.set_tbl(5, 0x8001);
    history_.commit(file_block({fri_record(POOL, 2, 0, INIT_BIT), tbl_record(POOL, 5, 0x8002)}));
    const std::string before = files_.all_bytes();
    EXPECT_EQ(check(TBL_FILE), -1);
    EXPECT_EQ(check(FRI_FILE), -1);
    EXPECT_EQ(check(MAP_FILE), 0);
    EXPECT_EQ(files_.all_bytes(), before);
}
