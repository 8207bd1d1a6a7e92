#include "cli/type_words.h"

#include <gtest/gtest.h>

#include "cli/operations.h"
#include "support/log_capture.h"

TEST(type_words, each_word_of_ckjnl_and_rpjnl_has_its_driver) {
    log_capture log;
    EXPECT_EQ(get_funs("fri", ckjnl_funs), check_fri_journal);
    EXPECT_EQ(get_funs("tbl", ckjnl_funs), check_tbl_journal);
    EXPECT_EQ(get_funs("map", ckjnl_funs), check_map_journal);
    EXPECT_EQ(get_funs("vol", ckjnl_funs), check_vol_journal);
    EXPECT_EQ(get_funs("fri", rpjnl_funs), replay_fri_journal);
    EXPECT_EQ(get_funs("tbl", rpjnl_funs), replay_tbl_journal);
    EXPECT_EQ(get_funs("map", rpjnl_funs), replay_map_journal);
    EXPECT_EQ(get_funs("vol", rpjnl_funs), replay_vol_journal);
    EXPECT_EQ(log.lines(), log_lines({}));
}

TEST(type_words, the_other_tables_hold_their_words_and_no_more) {
    log_capture log;
    for (const char* word : {"fri", "tbl", "map"}) {
        EXPECT_NE(get_funs(word, create_funs), bad_fun) << word;
    }
    for (const char* word : {"fri", "tbl"}) {
        EXPECT_NE(get_funs(word, chuuid_funs), bad_fun) << word;
    }
    for (const char* word : {"fri", "tbl", "map", "jnl"}) {
        EXPECT_NE(get_funs(word, search_funs), bad_fun) << word;
    }
    EXPECT_EQ(log.lines(), log_lines({}));
    EXPECT_EQ(get_funs("vol", search_funs), bad_fun);
    EXPECT_EQ(get_funs("jnl", create_funs), bad_fun);
    EXPECT_EQ(get_funs("map", chuuid_funs), bad_fun);
}

TEST(type_words, an_unknown_word_is_logged_and_selects_bad_fun) {
    log_capture log;
    EXPECT_EQ(get_funs("FRI", ckjnl_funs), bad_fun);  // case matters
    EXPECT_EQ(get_funs("", ckjnl_funs), bad_fun);
    EXPECT_EQ(log.lines(), log_lines({"ERR: get_funs(#) Not define option 'FRI'\n",
                                      "ERR: get_funs(#) Not define option ''\n"}));
}

TEST(type_words, a_missing_word_is_logged_and_selects_bad_fun) {
    log_capture log;
    EXPECT_EQ(get_funs(nullptr, ckjnl_funs), bad_fun);
    EXPECT_EQ(log.lines(), log_lines({"ERR: get_funs(#) param name is NULL\n"}));
}

TEST(type_words, bad_fun_returns_minus_1_silently) {
    log_capture log;
    EXPECT_EQ(bad_fun(0, nullptr, 0), -1);
    EXPECT_EQ(log.lines(), log_lines({}));
}
