// Replay of MOVES blocks, which concern maps only.
#include "support/jnl_replay_fixture.h"

class jnl_replay_moves : public jnl_replay_fixture {};

TEST_F(jnl_replay_moves, moves_into_the_map_write_entries_and_the_destinations_count) {
    raw_block block = moves_block(MAP, 10, 2, ELSEWHERE, 20, 3, 17).u64(96, 99);
    history_.commit(block.u64(MOVES_MAPS, MAPPED | 5).u64(MOVES_MAPS + 8, MAPPED | 6));
    expect_untouched(TBL_FILE);
    expect_untouched(FRI_FILE);
    EXPECT_EQ(replay(MAP_FILE), 0);
    EXPECT_EQ(files_.map(10), MAPPED | 5);
    EXPECT_EQ(files_.map(11), MAPPED | 6);
    EXPECT_EQ(files_.map(20), 0u);
    EXPECT_EQ(files_.mapped_count(), 17u);
    EXPECT_EQ(lines_, log_lines({}));
}

TEST_F(jnl_replay_moves, moves_out_of_the_map_leave_the_bare_marker) {
    files_.set_map(20, MAPPED | 5);
    files_.set_map(22, MAPPED | 7);
    history_.commit(moves_block(ELSEWHERE, 10, 1, MAP, 20, 2, 99).u64(96, 17));
    EXPECT_EQ(replay(MAP_FILE), 0);
    EXPECT_EQ(files_.map(20), EMPTIED);
    EXPECT_EQ(files_.map(21), EMPTIED);
    EXPECT_EQ(files_.map(22), MAPPED | 7);
    EXPECT_EQ(files_.map(10), 0u);
    EXPECT_EQ(files_.mapped_count(), 17u);
}

TEST_F(jnl_replay_moves, moves_set_the_replay_flag_by_bit_0_alone) {
    for (const auto& [flags, left] : std::vector<std::pair<uint8_t, uint64_t>>{
             {0, EMPTIED}, {1, FLAGGED}, {0xFE, EMPTIED}, {0xFF, FLAGGED}}) {
        raw_history other(64, 1);
        other.commit(moves_block(ELSEWHERE, 0, 0, MAP, 20, 1, 17).u8(86, flags));
        other.load();
        EXPECT_EQ(jnl_file_type_replay(MAP_FILE), 0);
        EXPECT_EQ(files_.map(20), left) << int{flags};
    }
}

TEST_F(jnl_replay_moves, moves_of_no_entry_set_no_count) {
    history_.commit(file_block({map_record(MAP, 9, 1, 5)}));
    history_.commit(moves_block(MAP, 0, 0, ELSEWHERE, 0, 4, 99));
    history_.commit(moves_block(ELSEWHERE, 0, 4, MAP, 0, 0, 99));
    EXPECT_EQ(replay(MAP_FILE), 0);
    EXPECT_EQ(files_.mapped_count(), 5u);
}

TEST_F(jnl_replay_moves, moves_inside_the_newest_block_of_a_map_fail_with_one_message) {
    history_.commit(moves_block(MAP, 0, 1, MAP, 5, 1, 17));
    const std::string before = files_.all_bytes();
    EXPECT_EQ(replay(MAP_FILE), -1);
    EXPECT_EQ(lines_, log_lines({blames("moves", "MOVES", 4, 1)}));
    EXPECT_EQ(files_.all_bytes(), before);
}

TEST_F(jnl_replay_moves, moves_inside_a_map_whose_count_is_set_keep_the_source_where_they_meet) {
    raw_block block = moves_block(MAP, 4, 3, MAP, 5, 3, 99);  // 5 and 6 lie in both ranges
    for (uint32_t i = 0; i < 3; i++) {
        block.u64(MOVES_MAPS + 8 * i, MAPPED | (100 + i));
    }
    history_.commit({block, file_block({map_record(MAP, 60, 1, 17)})});
    EXPECT_EQ(replay(MAP_FILE), 0);
    EXPECT_EQ(files_.map(4), MAPPED | 100);
    EXPECT_EQ(files_.map(5), EMPTIED);
    EXPECT_EQ(files_.map(6), EMPTIED);
    EXPECT_EQ(files_.map(7), EMPTIED);
    EXPECT_EQ(files_.mapped_count(), 17u);
    raw_history upward(64, 1);  // the same leas in the other direction
    upward.commit({block.u64(68, 5).u64(76, 4), file_block({map_record(MAP, 60, 1, 17)})});
    upward.load();
    EXPECT_EQ(jnl_file_type_replay(MAP_FILE), 0);
    EXPECT_EQ(files_.map(4), EMPTIED);
    EXPECT_EQ(files_.map(5), EMPTIED);
    EXPECT_EQ(files_.map(6), EMPTIED);
    EXPECT_EQ(files_.map(7), MAPPED | 102);
}

TEST_F(jnl_replay_moves, moves_inside_a_map_with_two_counts_are_a_conflict) {
    history_.commit({moves_block(MAP, 0, 1, MAP, 5, 1, 17).u64(96, 18),
                     file_block({map_record(MAP, 60, 1, 17)})});
    EXPECT_EQ(replay(MAP_FILE), -1);
    EXPECT_EQ(lines_, log_lines({logged("moves", "Conflict mapped_count in same MAP"),
                                 blames("moves", "MOVES", 4, 1)}));
    EXPECT_EQ(files_.map(5), 0u);
}

TEST_F(jnl_replay_moves, moves_over_50_fail_for_every_type_even_if_unrelated) {
    for (const auto& [src, dst] : std::vector<std::pair<uint8_t, uint8_t>>{{51, 0}, {0, 51}}) {
        raw_history other(64, 1);
        other.commit(moves_block(ELSEWHERE, 0, dst, ELSEWHERE, 0, src, 0));
        other.load();
        for (const int32_t type : {TBL_FILE, FRI_FILE, MAP_FILE}) {
            log_.clear();
            EXPECT_EQ(jnl_file_type_replay(type), -1);
            EXPECT_TRUE(
                log_.has(logged("moves", "Journal count (src " + std::to_string(src) + "/ dst " +
                                             std::to_string(dst) + ") exceed maximum (50)")));
            EXPECT_EQ(log_.lines().back(), blames("moves", "MOVES", type, 1));
        }
    }
}

TEST_F(jnl_replay_moves, a_full_moves_block_is_newer_than_every_item_of_the_block_before) {
    // 50 sources and 50 destinations: the last destination is the hundredth item of its block.
    history_.commit(file_block({map_record(MAP, 119, MAPPED | 1, 4)}));
    raw_block block = moves_block(MAP, 70, 50, MAP, 0, 50, 5);
    block.u64(MOVES_MAPS + 8 * 49, MAPPED | 2);  // lea 119
    history_.commit({block, file_block({map_record(MAP, 60, 1, 17)})});
    EXPECT_EQ(replay(MAP_FILE), 0);
    EXPECT_EQ(files_.map(119), MAPPED | 2);
    EXPECT_EQ(files_.map(49), EMPTIED);
}
