#include <gtest/gtest.h>
#include <string>

#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/log_capture.h"
#include "volume/discovery.h"

class paths_in_a_list : public testing::Test {
protected:
    paths_in_a_list() { init_path_list(&list_); }
    ~paths_in_a_list() override { free_path_list(&list_); }
    path_entry list_ = {};
};

TEST_F(paths_in_a_list, keeps_the_order_of_appending_in_both_directions) {
    EXPECT_EQ(add_path_entry("/volume1/a", &list_, 0), 0);
    EXPECT_EQ(add_path_entry("/volume1/b", &list_, 1), 0);
    EXPECT_EQ(add_path_entry("/volume1/c", &list_, 2), 0);

    const path_entry* first = list_.next;
    EXPECT_STREQ(first->name, "/volume1/a");
    EXPECT_EQ(first->type, 0u);
    EXPECT_STREQ(first->next->name, "/volume1/b");
    EXPECT_EQ(first->next->type, 1u);
    EXPECT_STREQ(first->next->next->name, "/volume1/c");
    EXPECT_EQ(first->next->next->type, 2u);
    EXPECT_EQ(first->next->next->next, &list_);
    EXPECT_EQ(list_.prev, first->next->next);
    EXPECT_EQ(list_.prev->prev->prev, first);
    EXPECT_EQ(first->prev, &list_);
}

TEST_F(paths_in_a_list, freeing_leaves_an_empty_list_that_takes_entries_again) {
    EXPECT_EQ(add_path_entry("/volume1/a", &list_, 0), 0);
    free_path_list(&list_);
    EXPECT_EQ(list_.next, &list_);
    EXPECT_EQ(list_.prev, &list_);
    EXPECT_EQ(add_path_entry("/volume1/b", &list_, 0), 0);
    EXPECT_STREQ(list_.next->name, "/volume1/b");
    EXPECT_EQ(list_.next->next, &list_);
}

TEST_F(paths_in_a_list, a_path_of_127_characters_is_stored_whole) {
    const std::string path(127, 'a');
    log_capture log;
    EXPECT_EQ(add_path_entry(path.c_str(), &list_, 0), 0);
    EXPECT_EQ(list_.next->name, path);
    EXPECT_EQ(log.lines(), log_lines({}));
}

TEST_F(paths_in_a_list, a_longer_path_is_cut_logged_and_counted_as_a_failed_write) {
    const std::string path = std::string(127, 'a') + "b";
    const uint64_t failed = keep_journal_reasons().count;
    log_capture log;
    EXPECT_EQ(add_path_entry(path.c_str(), &list_, 0), 0);
    EXPECT_EQ(list_.next->name, std::string(127, 'a'));
    EXPECT_EQ(log.lines(), log_lines({"ERR: add_path_entry(#) path " + path + " is cut to " +
                                      std::string(127, 'a') + "\n"}));
    EXPECT_EQ(keep_journal_reasons().count, failed + 1);
}
