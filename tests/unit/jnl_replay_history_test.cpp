// Replay of history blocks into each kind of file; MOVES in jnl_replay_moves_test.cpp.
#include <cerrno>

#include "handles/handle_set.h"
#include "jnl/jnl_file.h"
#include "jnl/jnl_seen_keys.h"
#include "support/io_faults.h"
#include "support/jnl_replay_fixture.h"
#include "support/sample_maps.h"

class jnl_replay_history : public jnl_replay_fixture {
protected:
    std::string index_path() const { return files_.pool.fri_file.path(); }
};

// XCOPY

static raw_block two_copies() {
    raw_block block = xcopy_block(MAP, 62, 2, 17);  // its leas lie in two nodes
    block.u64(XCOPY_MAPS, MAPPED | 5).u64(XCOPY_MAPS + 8, MAPPED | 6);
    return block.u16(TBL_SLOTS, USED | 2).u16(TBL_SLOTS + 2, USED | 3);
}

TEST_F(jnl_replay_history, xcopy_writes_the_destinations_entries_and_mapped_count) {
    history_.commit(two_copies());
    EXPECT_EQ(replay(MAP_FILE), 0);
    EXPECT_EQ(files_.map(62), MAPPED | 5);
    EXPECT_EQ(files_.map(63), MAPPED | 6);
    EXPECT_EQ(files_.map(64), 0u);
    EXPECT_EQ(files_.mapped_count(), 17u);
    EXPECT_EQ(lines_, log_lines({}));
}

TEST_F(jnl_replay_history, xcopy_writes_the_table_entries_of_its_pool) {
    files_.open_in_handle_set();
    raw_block block = two_copies().u8(84, 4);
    block.u64(XCOPY_MAPS + 16, 7).u16(TBL_SLOTS + 4, USED | 4);  // not mapped
    block.u64(XCOPY_MAPS + 24, MAPPED | 8).u16(TBL_SLOTS + 6, USED);
    history_.commit(block);
    EXPECT_EQ(replay(TBL_FILE), 0);
    EXPECT_EQ(files_.pool.tbl(5), USED | 2);
    EXPECT_EQ(files_.pool.tbl(6), USED | 3);
    EXPECT_EQ(files_.pool.tbl(7), 0);
    EXPECT_EQ(files_.pool.tbl(8), USED);  // a count of 0 is refused by UNMAP alone
    EXPECT_EQ(lines_, log_lines({}));
}

TEST_F(jnl_replay_history, xcopy_does_not_touch_the_index_or_a_source) {
    history_.commit(two_copies());
    expect_untouched(FRI_FILE);
    raw_history other(64, 1);
    other.commit(xcopy_block(ELSEWHERE, 0, 2, 17).uuid(52, MAP));
    other.load();
    const std::string before = files_.all_bytes();
    EXPECT_EQ(jnl_file_type_replay(MAP_FILE), 0);
    EXPECT_EQ(files_.all_bytes(), before);
}

TEST_F(jnl_replay_history, no_kind_is_replayed_into_a_type_without_a_file) {
    const raw_block blocks[] = {xcopy_block(MAP, 0, 2, 17),
                                moves_block(MAP, 0, 2, ELSEWHERE, 0, 2, 17),
                                unmap_block(MAP, 0, 2, 17), alloc_block(MAP, 0, 2, 17, POOL)};
    const std::string before = files_.all_bytes();
    for (const raw_block& block : blocks) {
        raw_history other(64, 1);
        other.commit(block);
        other.load();
        for (const int32_t type : {0, 3, 5, -1}) {  // 3 occurs in FILE blocks only
            EXPECT_EQ(jnl_file_type_replay(type), 0);
        }
    }
    EXPECT_EQ(files_.all_bytes(), before);
}

TEST_F(jnl_replay_history, xcopy_of_nothing_is_skipped) {
    history_.commit(xcopy_block(MAP, 0, 0, 17));
    for (const int32_t type : {TBL_FILE, FRI_FILE, MAP_FILE}) {
        expect_untouched(type);
    }
}

TEST_F(jnl_replay_history, xcopy_counts_over_40_are_cut_to_40) {
    files_.open_in_handle_set();
    raw_block block = xcopy_block(MAP, 0, 255, 17);
    for (uint32_t i = 0; i < 40; i++) {
        block.u64(XCOPY_MAPS + 8 * i, MAPPED | (100 + i));
        block.u16(TBL_SLOTS + 2 * i, static_cast<uint16_t>(USED | (i + 1)));
    }
    history_.commit(block);
    EXPECT_EQ(replay(MAP_FILE), 0);
    EXPECT_EQ(files_.map(39), MAPPED | 139);
    EXPECT_EQ(files_.map(40), 0u);
    EXPECT_EQ(replay(TBL_FILE), 0);
    EXPECT_EQ(files_.pool.tbl(139), USED | 40);
    EXPECT_EQ(files_.pool.tbl(140), 0);
    EXPECT_FALSE(log_.has("Fail"));
}

TEST_F(jnl_replay_history, slots_of_maps_that_are_not_open_are_counted_and_skipped) {
    history_.commit(two_copies());
    const std::string before = files_.all_bytes();
    EXPECT_EQ(replay(TBL_FILE), 0);
    EXPECT_EQ(lines_, log_lines({logged("xcopy", "tarn_map_get_pool_uuid error occurs 2 times")}));
    EXPECT_EQ(files_.all_bytes(), before);
}

TEST_F(jnl_replay_history, a_slot_of_a_pool_row_that_the_map_lacks_is_counted) {
    files_.open_in_handle_set();
    history_.commit(two_copies().u64(XCOPY_MAPS, MAPPED | (uint64_t{1} << 48) | 5));
    EXPECT_EQ(replay(TBL_FILE), 0);
    EXPECT_EQ(files_.pool.tbl(5), 0);
    EXPECT_EQ(files_.pool.tbl(6), USED | 3);
    EXPECT_EQ(lines_.back(), logged("xcopy", "tarn_map_get_pool_uuid error occurs 1 times"));
}

TEST_F(jnl_replay_history, extents_of_another_pool_are_skipped) {
    const uuid_bytes other_pool = uuid_from(ELSEWHERE);
    const std::string path = files_.directory.file("other");
    make_map(path, uuid_from(0x70), other_pool);
    EXPECT_EQ(load_as_handle(path.c_str()), 0);
    history_.commit({two_copies().uuid(36, 0x70), unmap_block(0x70, 0, 1, 0).u64(72, MAPPED | 5)});
    expect_untouched(TBL_FILE);
}

TEST_F(jnl_replay_history, a_lea_past_what_the_map_can_hold_fails_the_block) {
    history_.commit(xcopy_block(MAP, uint64_t{1} << 60, 1, 17));
    EXPECT_EQ(replay(MAP_FILE), -1);
    ASSERT_GE(lines_.size(), 2u);
    EXPECT_EQ(lines_[lines_.size() - 2],
              logged("xcopy", "Fail to replay MAP, lea 1152921504606846976"));
    EXPECT_EQ(lines_.back(), blames("xcopy", "XCOPY", 4, 1));
}

TEST_F(jnl_replay_history, a_lea_that_wraps_never_becomes_a_small_one) {
    const uint64_t last = ~uint64_t{0};
    struct {
        raw_block block;
        const char* kind;
    } cases[] = {
        {xcopy_block(MAP, last, 2, 17).u64(XCOPY_MAPS + 8, MAPPED | 6), "xcopy"},
        {moves_block(MAP, last, 2, ELSEWHERE, 0, 0, 17).u64(MOVES_MAPS + 8, MAPPED | 6), "moves"},
        {moves_block(ELSEWHERE, 0, 0, MAP, last, 2, 17), "moves"},
        {unmap_block(MAP, last, 2, 17), "unmap"},
        {alloc_block(MAP, last, 2, 17, POOL).u64(ALLOC_MAPS + 8, MAPPED | 6), "alloc"},
    };
    for (const auto& test : cases) {
        raw_history other(64, 1);
        other.commit(test.block);
        other.load();
        jnl_seen_keys seen = {};
        EXPECT_EQ(jnl_seen_keys_test_and_add(&seen, last, 0), 0);  // the wrapped lea would be next
        log_.clear();
        EXPECT_EQ(jnl_file_type_replay_pass(MAP_FILE, &seen), -1) << test.kind;
        EXPECT_EQ(files_.map(0), 0u) << test.kind;
        EXPECT_TRUE(log_.has(logged(test.kind, "Fail to replay MAP, lea 0"))) << test.kind;
        jnl_seen_keys_free(&seen);
    }
}

// UNMAP

static raw_block two_unmaps() {
    raw_block block = unmap_block(MAP, 10, 2, 17);
    block.u64(UNMAP_MAPS, MAPPED | 5).u64(UNMAP_MAPS + 8, MAPPED | 6);
    return block.u16(TBL_SLOTS, USED | 2).u16(TBL_SLOTS + 2, USED | 3);
}

TEST_F(jnl_replay_history, unmap_leaves_the_marker_and_sets_the_count) {
    files_.set_map(10, MAPPED | 5);
    history_.commit(two_unmaps());
    expect_untouched(FRI_FILE);
    EXPECT_EQ(replay(MAP_FILE), 0);
    EXPECT_EQ(files_.map(10), EMPTIED);
    EXPECT_EQ(files_.map(11), EMPTIED);
    EXPECT_EQ(files_.map(12), 0u);
    EXPECT_EQ(files_.mapped_count(), 17u);
    raw_history other(64, 1);
    other.commit(two_unmaps().u8(61, 3));
    other.load();
    EXPECT_EQ(jnl_file_type_replay(MAP_FILE), 0);
    EXPECT_EQ(files_.map(10), FLAGGED);
}

TEST_F(jnl_replay_history, unmap_writes_the_table_entries_of_the_extents_it_left) {
    files_.open_in_handle_set();
    history_.commit(two_unmaps().u8(60, 3).u64(UNMAP_MAPS + 16, 7));  // slot 2 was not mapped
    EXPECT_EQ(replay(TBL_FILE), 0);
    EXPECT_EQ(files_.pool.tbl(5), USED | 2);
    EXPECT_EQ(files_.pool.tbl(6), USED | 3);
    EXPECT_EQ(files_.pool.tbl(7), 0);
}

TEST_F(jnl_replay_history, unmap_to_a_table_entry_without_references_fails) {
    files_.open_in_handle_set();
    raw_block block = two_unmaps().u8(60, 4).u16(TBL_SLOTS + 2, USED | 0x7000);
    block.u64(UNMAP_MAPS, MAPPED | (uint64_t{9} << 48) | 5);  // a row that the map lacks
    block.u64(UNMAP_MAPS + 16, MAPPED | 7).u16(TBL_SLOTS + 4, USED | 1);
    history_.commit(block);
    EXPECT_EQ(replay(TBL_FILE), -1);
    ASSERT_EQ(lines_.size(), 4u);
    EXPECT_EQ(lines_[1], logged("unmap", "TBL refer-cnt is zero, lpa 6"));
    EXPECT_EQ(lines_[2], logged("unmap", "tarn_map_get_pool_uuid error occurs 1 times"));
    EXPECT_EQ(lines_[3], blames("unmap", "UNMAP", 1, 1));
    EXPECT_EQ(files_.pool.tbl(7), 0);  // the loop stopped there
}

TEST_F(jnl_replay_history, unmap_of_a_seen_extent_may_be_without_references) {
    files_.open_in_handle_set();
    history_.commit(two_unmaps().u16(TBL_SLOTS, USED));
    history_.commit(file_block({tbl_record(POOL, 5, 0x0007)}));
    EXPECT_EQ(replay(TBL_FILE), 0);
    EXPECT_EQ(files_.pool.tbl(5), 7);
}

TEST_F(jnl_replay_history, wrong_unmap_and_alloc_counts_fail_for_every_type_even_if_unrelated) {
    struct {
        raw_block block;
        const char* kind;
        const char* word;
        const char* text;
    } cases[] = {
        {unmap_block(ELSEWHERE, 0, 0, 0), "unmap", "UNMAP", "Journal count is zero)"},
        {unmap_block(ELSEWHERE, 0, 44, 0), "unmap", "UNMAP",
         "Journal count (44) exceed maximum (43)"},
        {alloc_block(ELSEWHERE, 0, 0, 0, ELSEWHERE), "alloc", "ALLOC", "Journal count is zero)"},
        {alloc_block(ELSEWHERE, 0, 48, 0, ELSEWHERE), "alloc", "ALLOC",
         "Journal count (48) exceed maximum (47)"},
    };
    for (const auto& test : cases) {
        raw_history other(64, 1);
        other.commit(test.block);
        other.load();
        for (const int32_t type : {TBL_FILE, FRI_FILE, MAP_FILE}) {
            log_.clear();
            EXPECT_EQ(jnl_file_type_replay(type), -1);
            EXPECT_EQ(log_.count(logged(test.kind, test.text)), 1u) << test.text;
            EXPECT_EQ(log_.lines().back(), blames(test.kind, test.word, type, 1));
        }
    }
}

TEST_F(jnl_replay_history, the_greatest_counts_are_replayed) {
    files_.open_in_handle_set();
    raw_block unmap = unmap_block(MAP, 0, 43, 17).u64(UNMAP_MAPS + 8 * 42, MAPPED | 42);
    raw_block alloc = alloc_block(MAP, 50, 47, 17, POOL).u64(ALLOC_MAPS + 8 * 46, MAPPED | 96);
    history_.commit({unmap.u16(TBL_SLOTS + 2 * 42, USED | 9), alloc});
    EXPECT_EQ(replay(TBL_FILE), 0);
    EXPECT_EQ(files_.pool.tbl(42), USED | 9);
    EXPECT_EQ(files_.pool.tbl(96), USED | 1);
    EXPECT_EQ(replay(MAP_FILE), 0);
    EXPECT_EQ(files_.map(42), EMPTIED);
    EXPECT_EQ(files_.map(96), MAPPED | 96);
}

// ALLOC

static raw_block two_allocs() {
    raw_block block = alloc_block(MAP, 10, 2, 17, POOL);
    block.u64(88, 1).u64(96, 0).u64(104, INIT_BIT | 3).u64(112, 1234).u64(120, 1);
    return block.u64(ALLOC_MAPS, MAPPED | 4096).u64(ALLOC_MAPS + 8, 4097);  // slot 1 not mapped
}

TEST_F(jnl_replay_history, alloc_writes_the_maps_entries_and_count) {
    history_.commit(two_allocs());
    EXPECT_EQ(replay(MAP_FILE), 0);
    EXPECT_EQ(files_.map(10), MAPPED | 4096);
    EXPECT_EQ(files_.map(11), 4097u);
    EXPECT_EQ(files_.map(12), 0u);
    EXPECT_EQ(files_.mapped_count(), 17u);
}

TEST_F(jnl_replay_history, alloc_gives_every_extent_one_reference_mapped_or_not) {
    files_.pool.set_tbl(4096, 0x1005);
    history_.commit(two_allocs());  // no map is open: none is needed
    EXPECT_EQ(replay(TBL_FILE), 0);
    EXPECT_EQ(files_.pool.tbl(4096), 0x8001);
    EXPECT_EQ(files_.pool.tbl(4097), 0x8001);
    EXPECT_EQ(files_.pool.tbl(4098), 0);
    EXPECT_EQ(lines_, log_lines({}));
}

TEST_F(jnl_replay_history, alloc_writes_group_and_counters_and_builds_a_new_groups_free_list) {
    history_.commit(two_allocs());
    EXPECT_EQ(replay(FRI_FILE), 0);
    EXPECT_EQ(files_.pool.fri(1), "03 00 00 00 00 00 00 80 ");
    EXPECT_EQ(fri_free_count_of(index_path()), 1234u);
    EXPECT_EQ(fri_group_head_of(index_path()), 1u);
    EXPECT_EQ(files_.pool.tbl(4096), 1);
    EXPECT_EQ(files_.pool.tbl(8191), 0x1000);
    EXPECT_EQ(files_.pool.tbl(4095), 0);
}

TEST_F(jnl_replay_history, alloc_from_an_initialised_group_leaves_its_free_list) {
    history_.commit(two_allocs().u64(96, INIT_BIT));
    EXPECT_EQ(replay(FRI_FILE), 0);
    EXPECT_EQ(files_.pool.fri(1), "03 00 00 00 00 00 00 80 ");
    EXPECT_EQ(files_.pool.tbl(4096), 0);
}

TEST_F(jnl_replay_history, an_older_alloc_changes_neither_counters_nor_a_seen_group) {
    history_.commit(two_allocs());
    history_.commit(two_allocs().u64(96, INIT_BIT).u64(104, INIT_BIT | 2).u64(112, 999));
    EXPECT_EQ(replay(FRI_FILE), 0);
    EXPECT_EQ(files_.pool.fri(1), "02 00 00 00 00 00 00 80 ");
    EXPECT_EQ(fri_free_count_of(index_path()), 999u);
    EXPECT_EQ(files_.pool.tbl(8191), 0x1000);  // but builds the free list, group seen or not
}

TEST_F(jnl_replay_history, alloc_from_another_pool_or_into_another_map_is_skipped) {
    history_.commit(two_allocs().uuid(36, ELSEWHERE).uuid(72, ELSEWHERE));
    for (const int32_t type : {TBL_FILE, FRI_FILE, MAP_FILE}) {
        expect_untouched(type);
    }
}

TEST_F(jnl_replay_history, alloc_of_a_group_past_the_index_fails) {
    history_.commit(two_allocs().u64(88, uint64_t{1} << 40).u64(96, INIT_BIT));
    EXPECT_EQ(replay(FRI_FILE), -1);
    EXPECT_EQ(lines_[lines_.size() - 2],
              logged("alloc", "Fail to replay FRI, group_num 1099511627776"));
    EXPECT_EQ(lines_.back(), blames("alloc", "ALLOC", 2, 1));
}

TEST_F(jnl_replay_history, counters_that_cannot_be_saved_fail_the_block) {
    history_.commit(two_allocs());
    io_fault_at fault(1, EIO, {io_call::write});
    EXPECT_EQ(replay(FRI_FILE), -1);
    EXPECT_EQ(lines_[lines_.size() - 2],
              logged("alloc",
                     "Fail to replay FRI var part, total_free_count_new 1234 "
                     "index_head_new 1"));
    EXPECT_EQ(lines_.back(), blames("alloc", "ALLOC", 2, 1));
}

// All kinds

TEST_F(jnl_replay_history, a_mapped_count_that_cannot_be_saved_fails_each_kind) {
    struct {
        raw_block block;
        const char* kind;
        const char* word;
    } cases[] = {
        {two_copies(), "xcopy", "XCOPY"},
        {moves_block(MAP, 0, 1, ELSEWHERE, 0, 1, 17), "moves", "MOVES"},
        {moves_block(ELSEWHERE, 0, 1, MAP, 0, 1, 17), "moves", "MOVES"},
        {two_unmaps(), "unmap", "UNMAP"},
        {two_allocs(), "alloc", "ALLOC"},
    };
    for (const auto& test : cases) {
        raw_history other(64, 1);
        other.commit(test.block);
        other.load();
        log_.clear();
        io_fault_at fault(1, EIO, {io_call::write});
        EXPECT_EQ(jnl_file_type_replay(MAP_FILE), -1);
        const std::vector<std::string> lines = log_.lines();
        ASSERT_GE(lines.size(), 2u);
        EXPECT_EQ(lines[lines.size() - 2], logged(test.kind, "MAP mapped_count is not match"));
        EXPECT_EQ(lines.back(), blames(test.kind, test.word, 4, 1));
    }
}

TEST_F(jnl_replay_history, the_mapped_count_is_the_newest_records_whatever_its_kind) {
    history_.commit(file_block({map_record(MAP, 60, 1, 11)}));
    history_.commit({two_unmaps(), alloc_block(MAP, 30, 1, 12, POOL)});
    EXPECT_EQ(replay(MAP_FILE), 0);
    EXPECT_EQ(files_.mapped_count(), 12u);
    history_.commit({xcopy_block(MAP, 40, 1, 13)});
    EXPECT_EQ(replay(MAP_FILE), 0);
    EXPECT_EQ(files_.mapped_count(), 13u);
}

TEST_F(jnl_replay_history, the_newest_image_of_a_lea_wins_over_all_kinds) {
    history_.commit(two_allocs());                                     // 10, 11
    history_.commit(two_unmaps());                                     // 10, 11
    history_.commit(xcopy_block(MAP, 11, 1, 17).u64(96, MAPPED | 5));  // 11
    EXPECT_EQ(replay(MAP_FILE), 0);
    EXPECT_EQ(files_.map(10), EMPTIED);
    EXPECT_EQ(files_.map(11), MAPPED | 5);
}

TEST_F(jnl_replay_history, a_transaction_that_wraps_over_the_rings_end_is_replayed_whole) {
    raw_history ring(4, 3);
    ring.commit({two_allocs(), xcopy_block(MAP, 20, 1, 18).u64(96, MAPPED | 9)});
    ring.load();
    EXPECT_EQ(jnl_file_type_replay(MAP_FILE), 0);
    EXPECT_EQ(files_.map(10), MAPPED | 4096);
    EXPECT_EQ(files_.map(20), MAPPED | 9);
    EXPECT_EQ(files_.mapped_count(), 18u);
}

TEST_F(jnl_replay_history, what_was_written_before_a_failure_stays) {
    history_.commit(unmap_block(ELSEWHERE, 0, 0, 0));
    history_.commit(two_allocs());
    EXPECT_EQ(replay(MAP_FILE), -1);
    EXPECT_EQ(files_.map(10), MAPPED | 4096);
    EXPECT_EQ(files_.mapped_count(), 17u);
}

TEST_F(jnl_replay_history, a_journal_without_anything_to_process_changes_nothing) {
    for (const int32_t type : {TBL_FILE, FRI_FILE, MAP_FILE}) {
        expect_untouched(type);
    }
    history_.set_newest(9, 5);
    EXPECT_EQ(replay(TBL_FILE), -1);
    EXPECT_EQ(lines_.back(),
              "ERR: jnl_file_type_replay(#) Can't determine the last complete commit\n");
}
