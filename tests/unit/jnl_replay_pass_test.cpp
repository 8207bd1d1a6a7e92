// Replay of one table in several passes, each with other maps open.
#include "handles/handle_set.h"
#include "jnl/jnl_seen_keys.h"
#include "support/jnl_replay_fixture.h"

class jnl_replay_pass : public jnl_replay_fixture {
protected:
    jnl_replay_pass() {
        make_map(older_, uuid_from(OLDER), uuid_from(POOL));
        make_map(newer_, uuid_from(NEWER), uuid_from(POOL));
    }
    ~jnl_replay_pass() override { jnl_seen_keys_free(&applied_); }

    // One pass with one map open, none for an empty path. The word of lpa 5 afterwards.
    uint16_t pass(const std::string& path) {
        if (!path.empty()) {
            EXPECT_EQ(load_as_handle(path.c_str()), 0);
        }
        history_.load();
        EXPECT_EQ(jnl_file_type_replay_pass(TBL_FILE, &applied_), 0);
        EXPECT_EQ(finish_handle_set(), 0);
        return files_.pool.tbl(5);
    }
    static raw_block copy(uint8_t map, uint16_t word, uint8_t slot = 0) {
        raw_block block = xcopy_block(map, 0, static_cast<uint8_t>(slot + 1), 1);
        for (uint32_t i = 0; i < slot; i++) {
            block.u64(XCOPY_MAPS + 8 * i, uint64_t{900} + i);  // not mapped
        }
        return block.u64(XCOPY_MAPS + 8u * slot, MAPPED | 5).u16(TBL_SLOTS + 2u * slot, word);
    }

    static constexpr uint8_t OLDER = 0x50;
    static constexpr uint8_t NEWER = 0x60;
    const std::string older_ = files_.directory.file("older");
    const std::string newer_ = files_.directory.file("newer");
    jnl_seen_keys applied_ = {};
};

TEST_F(jnl_replay_pass, an_older_image_never_replaces_a_newer_one_of_an_earlier_pass) {
    history_.commit(copy(OLDER, USED | 1));
    history_.commit(copy(NEWER, USED | 2));
    EXPECT_EQ(pass(newer_), USED | 2);
    EXPECT_EQ(pass(older_), USED | 2);
    EXPECT_EQ(pass(""), USED | 2);
}

TEST_F(jnl_replay_pass, a_newer_image_replaces_the_older_one_of_an_earlier_pass) {
    history_.commit(copy(OLDER, USED | 1));
    history_.commit(copy(NEWER, USED | 2));
    EXPECT_EQ(pass(older_), USED | 1);
    EXPECT_EQ(pass(newer_), USED | 2);
    EXPECT_EQ(pass(older_), USED | 2);
}

TEST_F(jnl_replay_pass, records_that_need_no_map_keep_their_order_across_the_passes) {
    history_.commit(copy(OLDER, USED | 1));
    history_.commit(file_block({tbl_record(POOL, 5, 0x0007)}));
    EXPECT_EQ(pass(older_), 7);
    EXPECT_EQ(pass(""), 7);
    history_.commit(copy(NEWER, USED | 2));
    // A journal that grew needs a new walk: the passes begin again.
    jnl_seen_keys_free(&applied_);
    EXPECT_EQ(pass(older_), 7);
    EXPECT_EQ(pass(newer_), USED | 2);
}

TEST_F(jnl_replay_pass, the_last_slot_of_a_newer_block_is_newer_than_the_first_of_an_older) {
    history_.commit(copy(OLDER, USED | 1));
    history_.commit(copy(NEWER, USED | 2, 39));
    EXPECT_EQ(pass(older_), USED | 1);
    EXPECT_EQ(pass(newer_), USED | 2);
}

TEST_F(jnl_replay_pass, within_one_transaction_the_later_block_is_newer) {
    history_.commit({copy(OLDER, USED | 1), copy(NEWER, USED | 2)});
    EXPECT_EQ(pass(newer_), USED | 2);
    EXPECT_EQ(pass(older_), USED | 2);
    jnl_seen_keys_free(&applied_);
    EXPECT_EQ(pass(older_), USED | 1);
    EXPECT_EQ(pass(newer_), USED | 2);
}

TEST_F(jnl_replay_pass, passes_in_any_order_of_maps_give_what_one_pass_with_all_gives) {
    history_.commit({copy(OLDER, USED | 1), file_block({tbl_record(POOL, 9, USED | 9)})});
    history_.commit({copy(NEWER, USED | 2), copy(OLDER, USED | 3)});
    history_.commit(file_block({tbl_record(POOL, 9, 4)}));
    EXPECT_EQ(load_as_handle(older_.c_str()), 0);
    EXPECT_EQ(load_as_handle(newer_.c_str()), 0);
    EXPECT_EQ(replay(TBL_FILE), 0);
    EXPECT_EQ(finish_handle_set(), 0);
    const std::string all_at_once = files_.all_bytes();
    EXPECT_EQ(files_.pool.tbl(5), USED | 3);
    const std::vector<std::vector<std::string>> orders = {
        {older_, newer_, ""}, {newer_, older_}, {"", newer_, "", older_, newer_}};
    for (const auto& order : orders) {
        jnl_seen_keys_free(&applied_);
        files_.pool.set_tbl(5, 0x0006);
        for (const std::string& path : order) {
            pass(path);
        }
        EXPECT_EQ(files_.all_bytes(), all_at_once);
    }
}

TEST_F(jnl_replay_pass, a_set_without_room_fails_the_pass) {
    history_.commit(file_block({tbl_record(POOL, 5, USED | 1)}));
    applied_.full = true;
    history_.load();
    EXPECT_EQ(jnl_file_type_replay_pass(TBL_FILE, &applied_), -1);
}
