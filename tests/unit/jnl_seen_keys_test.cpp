#include "jnl/jnl_seen_keys.h"

#include <gtest/gtest.h>

#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/log_capture.h"

class jnl_seen_keys_test : public testing::Test {
protected:
    ~jnl_seen_keys_test() override { jnl_seen_keys_free(&keys_); }
    int add(uint64_t key, uint64_t rank) { return jnl_seen_keys_test_and_add(&keys_, key, rank); }

    jnl_seen_keys keys_ = {};
};

TEST_F(jnl_seen_keys_test, a_key_is_new_once) {
    for (const uint64_t key : {uint64_t{0}, uint64_t{255}, uint64_t{256}, ~uint64_t{0}}) {
        EXPECT_EQ(add(key, 5), 0);
        EXPECT_EQ(add(key, 5), 1);
        EXPECT_EQ(add(key, 6), 1);
    }
    EXPECT_EQ(keys_.used, 4u);
}

TEST_F(jnl_seen_keys_test, a_newer_image_replaces_the_older_one_from_then_on) {
    EXPECT_EQ(add(7, 100), 0);
    EXPECT_EQ(add(7, 99), 0);
    EXPECT_EQ(add(7, 99), 1);
    EXPECT_EQ(add(7, 100), 1);
    EXPECT_EQ(add(7, 0), 0);
    EXPECT_EQ(add(7, 1), 1);
}

TEST_F(jnl_seen_keys_test, growing_keeps_keys_and_ranks) {
    constexpr uint64_t count = 100000;
    for (uint64_t i = 0; i < count; i++) {
        ASSERT_EQ(add(i * 4096, i + 10), 0) << i;
    }
    EXPECT_GE(keys_.slot_count, count);
    for (uint64_t i = 0; i < count; i++) {
        ASSERT_EQ(add(i * 4096, i + 10), 1) << i;
        ASSERT_EQ(add(i * 4096, i + 9), 0) << i;
    }
    EXPECT_EQ(keys_.used, count);
}

TEST_F(jnl_seen_keys_test, a_set_at_its_limit_takes_no_more_and_logs_that_once) {
    keep_journal_forget();
    log_capture log;
    constexpr uint64_t most = JNL_SEEN_SLOTS_MAX / 4 * 3;
    for (uint64_t i = 0; i < most; i++) {
        ASSERT_EQ(add(i, 1), 0) << i;
    }
    EXPECT_FALSE(keys_.full);
    EXPECT_EQ(log.lines(), log_lines({}));
    EXPECT_EQ(add(most, 1), -1);
    EXPECT_EQ(add(most + 1, 1), -1);
    EXPECT_TRUE(keys_.full);
    EXPECT_EQ(keep_journal_reasons().count, 1u);
    EXPECT_EQ(log.lines(), log_lines({"ERR: jnl_seen_keys_test_and_add(#) no room for more than "
                                      "3145728 keys\n"}));
    EXPECT_EQ(add(0, 1), 1);  // known keys stay known
    EXPECT_EQ(keys_.slot_count, uint64_t{1} << 22);
    keep_journal_forget();
}

TEST_F(jnl_seen_keys_test, a_freed_set_is_an_empty_one) {
    EXPECT_EQ(add(1, 1), 0);
    jnl_seen_keys_free(&keys_);
    EXPECT_EQ(keys_.slots, nullptr);
    EXPECT_EQ(add(1, 1), 0);
}
