// --search jnl without a path: the configured journal, and the log lines if there is none.
#include <gtest/gtest.h>

#include "cli/operations.h"
#include "cli/search.h"
#include "jnl/jnl_file.h"
#include "support/log_capture.h"
#include "support/sample_volumes.h"
#include "support/stdout_capture.h"

class search_without_a_path : public testing::Test {
protected:
    int run() {
        arguments words({"-m"});
        const stdout_capture ignored;
        const int result = search_jnl(words.count(), words.values(), 0);
        EXPECT_EQ(current_jnl.fd, 0);
        return result;
    }

    sample_volumes volumes_;
    log_capture log_;
};

TEST_F(search_without_a_path, shows_the_configured_journal_and_asks_for_none) {
    make_jnl(volumes_.journal(), 0, {});
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

// It continues nevertheless and fails to load an empty path.
TEST_F(search_without_a_path, asks_for_one_if_there_is_no_journal_root) {
    make_jnl(volumes_.journal(), 0, {});
    volumes_.let_platform_fail();
    EXPECT_EQ(run(), -1);
    std::vector<std::string> lines = log_.lines();
    lines.erase(lines.begin());  // that of the configuration
    EXPECT_EQ(lines, log_lines({"ERR: get_jnl_root_path(#) Fail to get the journal root\n",
                                "ERR: search_jnl(#) Please assign -p jnlpath, use default JNL \n",
                                "ERR: open_fd(#) open file  fail\n",
                                "ERR: load_jnl(#) jnl file descriptor is invalid\n",
                                "ERR: search_jnl(#) Fail to load JNL \n"}));
}
