// Replay of FILE blocks.
#include <cerrno>

#include "fri/fri_file.h"
#include "jnl/jnl_file.h"
#include "jnl/jnl_seen_keys.h"
#include "map/map_file.h"
#include "store/keep_journal.h"
#include "support/io_faults.h"
#include "support/jnl_replay_fixture.h"
#include "support/sample_maps.h"

class jnl_replay_file : public jnl_replay_fixture {
protected:
    static std::string blames_entry(int type, uint64_t block, int entry) {
        return logged("file", "Fail to replay " + std::to_string(type) + " type file, block_num " +
                                  std::to_string(block) + " entry " + std::to_string(entry));
    }
};

TEST_F(jnl_replay_file, the_newest_image_of_each_key_is_written_and_no_older_one) {
    history_.commit(file_block({tbl_record(POOL, 5, 0x8001), tbl_record(POOL, 6, 0x8001),
                                fri_record(POOL, 2, INIT_BIT, INIT_BIT | 1),
                                map_record(MAP, 9, 1, 1), map_record(MAP, 10, MAPPED | 1, 1)}));
    history_.commit({file_block({tbl_record(POOL, 5, 0x8002), map_record(MAP, 9, 2, 2)}),
                     file_block({tbl_record(POOL, 5, 0x8003), tbl_record(POOL, 5, 0x8004),
                                 fri_record(POOL, 2, INIT_BIT, INIT_BIT | 2),
                                 fri_record(POOL, 2, INIT_BIT, INIT_BIT | 3),
                                 map_record(MAP, 9, 3, 3), map_record(MAP, 9, 4, 4)})});
    EXPECT_EQ(replay(TBL_FILE), 0);
    EXPECT_EQ(files_.pool.tbl(5), 0x8004);
    EXPECT_EQ(files_.pool.tbl(6), 0x8001);
    EXPECT_EQ(lines_, log_lines({}));
    EXPECT_EQ(replay(FRI_FILE), 0);
    EXPECT_EQ(files_.pool.fri(2), "03 00 00 00 00 00 00 80 ");
    EXPECT_EQ(lines_, log_lines({}));
    EXPECT_EQ(replay(MAP_FILE), 0);
    EXPECT_EQ(files_.map(9), 4u);
    EXPECT_EQ(files_.map(10), MAPPED | 1);
    EXPECT_EQ(files_.mapped_count(), 4u);
    EXPECT_EQ(lines_, log_lines({}));
}

TEST_F(jnl_replay_file, a_second_run_changes_nothing) {
    history_.commit(file_block({tbl_record(POOL, 5, 0x8001), fri_record(POOL, 1, 0, INIT_BIT),
                                var0_record(POOL, 8, 9), map_record(MAP, 9, MAPPED, 1)}));
    for (const int32_t type : {FRI_FILE, TBL_FILE, MAP_FILE}) {
        EXPECT_EQ(replay(type), 0);
    }
    const std::string once = files_.all_bytes();
    for (const int32_t type : {FRI_FILE, TBL_FILE, MAP_FILE}) {
        EXPECT_EQ(replay(type), 0);
    }
    EXPECT_EQ(files_.all_bytes(), once);
}

TEST_F(jnl_replay_file, each_type_writes_its_own_file_only) {
    history_.commit(
        file_block({tbl_record(POOL, 5, 0x8001), fri_record(POOL, 2, INIT_BIT, INIT_BIT | 3),
                    var0_record(POOL, 8, 9), map_record(MAP, 9, MAPPED | 1, 1)}));
    const auto tbl = [this] { return files_.pool.tbl(5) != 0; };
    const auto fri = [this] {
        return files_.pool.fri(2) != "00 00 00 00 00 00 00 00 " ||
               fri_free_count_of(files_.pool.fri_file.path()) != 1000000;
    };
    const auto map = [this] { return files_.map(9) != 0 || files_.mapped_count() != 0; };
    EXPECT_EQ(replay(TBL_FILE), 0);
    EXPECT_TRUE(tbl() && !fri() && !map());
    EXPECT_EQ(replay(MAP_FILE), 0);
    EXPECT_TRUE(!fri() && map());
    EXPECT_EQ(replay(FRI_FILE), 0);
    EXPECT_TRUE(fri());
}

TEST_F(jnl_replay_file, entries_of_other_files_and_unknown_types_are_skipped) {
    history_.commit(file_block({tbl_record(ELSEWHERE, 5, 1), fri_record(ELSEWHERE, 5, 0, INIT_BIT),
                                var0_record(ELSEWHERE, 1, 1), map_record(ELSEWHERE, 1, 1, 1),
                                raw_entry(5, POOL), raw_entry(0x80000000, MAP)}));
    const std::string before = files_.all_bytes();
    for (const int32_t type : {TBL_FILE, FRI_FILE, VAR0, MAP_FILE}) {
        EXPECT_EQ(replay(type), 0) << type;
        EXPECT_EQ(log_.count("Fail"), 0u);
    }
    EXPECT_EQ(files_.all_bytes(), before);
}

TEST_F(jnl_replay_file, the_counters_of_the_index_come_from_the_newest_record_alone) {
    history_.commit(file_block({var0_record(POOL, 1, 2)}));
    history_.commit(file_block({var0_record(POOL, 3, 4), var0_record(POOL, 5, 6)}));
    history_.commit(file_block({tbl_record(POOL, 1, 1)}));
    EXPECT_EQ(replay(FRI_FILE), 0);
    EXPECT_EQ(fri_free_count_of(files_.pool.fri_file.path()), 5u);
    EXPECT_EQ(fri_group_head_of(files_.pool.fri_file.path()), 6u);
}

TEST_F(jnl_replay_file, type_3_replays_the_counters_alone) {
    history_.commit(
        file_block({fri_record(POOL, 2, INIT_BIT, INIT_BIT | 3), var0_record(POOL, 5, 6)}));
    EXPECT_EQ(replay(VAR0), 0);
    EXPECT_EQ(fri_free_count_of(files_.pool.fri_file.path()), 5u);
    EXPECT_EQ(files_.pool.fri(2), "00 00 00 00 00 00 00 00 ");
}

TEST_F(jnl_replay_file, the_mapped_count_is_that_of_the_first_entry_met) {
    history_.commit(file_block({map_record(MAP, 9, 2, 5), map_record(MAP, 10, 3, 6)}));
    history_.commit(file_block({map_record(MAP, 9, 4, 7), map_record(MAP, 9, 5, 8)}));
    EXPECT_EQ(replay(MAP_FILE), 0);
    EXPECT_EQ(files_.mapped_count(), 8u);
}

TEST_F(jnl_replay_file, a_lea_that_was_seen_sets_no_mapped_count) {
    history_.commit(file_block({map_record(MAP, 10, 3, 6), map_record(MAP, 9, 2, 5)}));
    history_.load();
    jnl_seen_keys seen = {};
    EXPECT_EQ(jnl_seen_keys_test_and_add(&seen, 9, 0), 0);
    EXPECT_EQ(jnl_file_type_replay_pass(MAP_FILE, &seen), 0);
    jnl_seen_keys_free(&seen);
    EXPECT_EQ(files_.map(9), 0u);
    EXPECT_EQ(files_.mapped_count(), 6u);
}

TEST_F(jnl_replay_file, a_group_that_a_record_initialises_gets_its_free_list_even_when_seen) {
    files_.pool.set_tbl(4096 + 1, USED | 1);
    history_.commit(file_block({fri_record(POOL, 1, 0, INIT_BIT | 7)}));  // initialises group 1
    history_.commit(file_block({fri_record(POOL, 1, INIT_BIT | 7, INIT_BIT | 8)}));
    EXPECT_EQ(replay(FRI_FILE), 0);
    EXPECT_EQ(files_.pool.fri(1), "08 00 00 00 00 00 00 80 ");
    EXPECT_EQ(files_.pool.tbl(4096), 2);  // links to offset 2: offset 1 is in use
    EXPECT_EQ(files_.pool.tbl(4096 + 1), USED | 1);
    EXPECT_EQ(files_.pool.tbl(4096 + 4094), 4095);
    EXPECT_EQ(files_.pool.tbl(4096 + 4095), 0x1000);
}

TEST_F(jnl_replay_file, a_group_that_was_initialised_before_keeps_its_free_list) {
    history_.commit(file_block({fri_record(POOL, 1, INIT_BIT, INIT_BIT | 8),
                                fri_record(POOL, 2, 0, 8), fri_record(POOL, 3, INIT_BIT, 8)}));
    const std::string before = files_.all_bytes();
    EXPECT_EQ(replay(FRI_FILE), 0);
    EXPECT_NE(files_.all_bytes(), before);
    for (const uint64_t group : {1u, 2u, 3u}) {
        EXPECT_EQ(files_.pool.tbl(group * 4096), 0) << group;
        EXPECT_EQ(files_.pool.tbl(group * 4096 + 4095), 0) << group;
    }
}

TEST_F(jnl_replay_file, a_free_list_that_cannot_be_built_is_counted_and_the_replay_continues) {
    const uint64_t absurd = uint64_t{1} << 60;  // no table has such a group, nor an index
    history_.commit(file_block({fri_record(POOL, absurd, 0, INIT_BIT)}));
    EXPECT_EQ(replay(FRI_FILE), -1);
    ASSERT_EQ(lines_.size(), 5u);
    EXPECT_EQ(lines_[0],
              "ERR: link_free_tbl_entry_in_group(#) Fail to link free tbl entry, "
              "group_num 1152921504606846976\n");
    EXPECT_EQ(lines_[3], logged("file", "Fail to replay FRI, group_num 1152921504606846976"));
    EXPECT_EQ(lines_[4], blames_entry(2, 1, 0));
    EXPECT_GE(keep_journal_reasons().count, 2u);
}

TEST_F(jnl_replay_file, a_lea_that_the_map_cannot_hold_fails) {
    history_.commit(file_block({map_record(MAP, 5, 1, 1), map_record(MAP, ~uint64_t{0}, 1, 9)}));
    EXPECT_EQ(replay(MAP_FILE), -1);
    EXPECT_EQ(lines_[lines_.size() - 2],
              logged("file", "Fail to replay MAP, lea 18446744073709551615"));
    EXPECT_EQ(lines_.back(), blames_entry(4, 1, 1));
    EXPECT_EQ(files_.map(5), 0u);
    EXPECT_EQ(files_.mapped_count(), 0u);  // set after the entry only
}

TEST_F(jnl_replay_file, an_lpa_past_the_largest_table_is_logged_and_counted) {
    history_.commit(file_block({tbl_record(POOL, ~uint64_t{0}, 0x8001)}));
    const uint64_t size = files_.pool.tbl_file.size();
    EXPECT_EQ(replay(TBL_FILE), 0);
    EXPECT_EQ(lines_.size(), 1u);
    EXPECT_EQ(keep_journal_reasons().count, 1u);
    EXPECT_EQ(files_.pool.tbl_file.size(), size);
}

TEST_F(jnl_replay_file, eight_entries_fail_for_every_type_with_one_message) {
    history_.commit(file_block({tbl_record(ELSEWHERE, 1, 1)}).u8(12, 8));
    for (const int32_t type : {TBL_FILE, FRI_FILE, MAP_FILE}) {
        EXPECT_EQ(replay(type), -1);
        EXPECT_EQ(lines_.back(), logged("file", "entry count 8 large than 7"));
    }
}

TEST_F(jnl_replay_file, an_entry_count_in_a_history_block_is_ignored) {
    history_.commit(xcopy_block(ELSEWHERE, 0, 0, 0).u8(12, 8));
    EXPECT_EQ(replay(TBL_FILE), 0);
}

TEST_F(jnl_replay_file, a_type_without_a_file_is_refused_at_the_first_entry) {
    history_.commit(file_block({}));
    EXPECT_EQ(replay(7), 0);
    history_.commit(file_block({tbl_record(POOL, 5, 0), tbl_record(POOL, 6, 0)}));
    for (const int32_t type : {0, 5, -1}) {
        EXPECT_EQ(replay(type), -1);
        EXPECT_EQ(lines_, log_lines({logged("file", "Not support " + std::to_string(type) +
                                                        " type file jnl check"),
                                     blames_entry(type, 2, 1)}));
    }
}

TEST_F(jnl_replay_file, values_of_the_whole_file_that_cannot_be_saved_fail) {
    history_.commit(file_block({var0_record(POOL, 5, 6), map_record(MAP, 9, 1, 8)}));
    history_.load();
    {
        io_fault_at fault(1, EIO, {io_call::write});
        EXPECT_EQ(replay(FRI_FILE), -1);
    }
    EXPECT_EQ(lines_[lines_.size() - 2],
              logged("file",
                     "Fail to replay FRI var part, total_free_count_new 5 "
                     "index_head_new 6"));
    EXPECT_EQ(lines_.back(), blames_entry(2, 1, 0));
    {
        io_fault_at fault(2, EIO, {io_call::write});  // after the entry's own
        EXPECT_EQ(replay(MAP_FILE), -1);
    }
    EXPECT_EQ(lines_[lines_.size() - 2], logged("file", "MAP mapped_count is not match"));
    EXPECT_EQ(lines_.back(), blames_entry(4, 1, 1));
}

// Whichever call fails, a run that returns 0 and counts no failed write has made every change that
// an undisturbed run makes; otherwise the next run makes the remaining ones.
TEST_F(jnl_replay_file, no_failing_call_goes_unnoticed) {
    history_.commit(file_block({tbl_record(POOL, 5, 0x8001), map_record(MAP, 9, 1, 8)}));
    history_.commit(
        file_block({tbl_record(POOL, 6, 0x8002), var0_record(POOL, 5, 6),
                    fri_record(POOL, 2, INIT_BIT, INIT_BIT | 2), map_record(MAP, 70, 2, 9)}));
    const auto is_done = [this](int32_t type) {
        switch (type) {
            case TBL_FILE:
                return files_.pool.tbl(5) == 0x8001 && files_.pool.tbl(6) == 0x8002;
            case FRI_FILE:
                return files_.pool.fri(2) == "02 00 00 00 00 00 00 80 " &&
                       fri_free_count_of(files_.pool.fri_file.path()) == 5;
            default:
                return files_.map(9) == 1 && files_.map(70) == 2 && files_.mapped_count() == 9;
        }
    };
    for (const int32_t type : {TBL_FILE, FRI_FILE, MAP_FILE}) {
        failed_calls failed;
        for (uint64_t n = 1;; n++) {
            ASSERT_LT(n, 200u);
            journalled_files& files = files_;
            files.pool.set_tbl(5, 0);
            files.pool.set_tbl(6, 0);
            files.pool.set_fri(2, 0, 0, 0);
            set_header_u64(files.pool.fri_file.path(), 4096, 4100, 0);
            files.set_map(9, 0);
            files.set_map(70, 0);
            set_header_u64(files.map_path, 4096, 4100, 0);
            history_.load();
            keep_journal_forget();
            int result = 0;
            bool fired = false;
            {
                io_fault_at fault(n, EIO, {io_call::read, io_call::write, io_call::seek});
                result = jnl_file_type_replay(type);
                fired = failed.add(fault);
            }
            if (!fired) {
                EXPECT_EQ(result, 0);
                EXPECT_TRUE(is_done(type));
                EXPECT_EQ(failed.kinds(), "read write seek") << "type " << type;
                break;
            }
            EXPECT_TRUE(result != 0 || keep_journal_reasons().count != 0 || is_done(type))
                << "type " << type << " call " << n;
            EXPECT_EQ(jnl_file_type_replay(type), 0);
            EXPECT_TRUE(is_done(type)) << "type " << type << " call " << n;
        }
    }
}
