// The commands on the journal's status word, as the storage service's scripts run them.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "journal_status.h"
#include "support/sample_volumes.h"
#include "system/support/sandbox.h"

using log_text = std::vector<std::string>;

TEST(status, setting_exits_255_although_it_succeeds) {
    const sandbox box;
    make_jnl(box.journal(), JNL_STATUS_RO, {});
    const run_result got = box.run({"--set-status", "success"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out, "");
    EXPECT_EQ(got.log, log_text{});
    EXPECT_EQ(jnl_status_of(box.journal()), 0x25521814U);
}

TEST(status, an_unknown_or_an_empty_word_stores_0) {
    const sandbox box;
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"--set-status", "fine"}, {"--set-status="}}) {
        make_jnl(box.journal(), JNL_STATUS_RO, {});
        EXPECT_EQ(box.run(words).status, 255);
        EXPECT_EQ(jnl_status_of(box.journal()), 0U);
    }
}

TEST(status, vaaick_exits_0_for_a_journal_that_is_not_bad) {
    const sandbox box;
    for (const uint32_t status : {JNL_STATUS_RO, JNL_STATUS_ABNORMAL}) {
        make_jnl(box.journal(), status, {});
        for (const char* mode : {"log", "nolog"}) {
            const run_result got = box.run({"--vaaick", mode});
            EXPECT_EQ(got.status, 0);
            EXPECT_EQ(got.log, log_text{});
        }
    }
}

TEST(status, vaaick_exits_255_for_a_bad_one_and_only_nolog_keeps_the_log_silent) {
    const sandbox box;
    make_jnl(box.journal(), JNL_STATUS_BAD, {});
    const run_result told = box.run({"--vaaick", "log"});
    EXPECT_EQ(told.status, 255);
    EXPECT_EQ(told.log, (log_text{"ERR: vaai_status_check(#) BAD JOURNAL\n"}));
    for (const char* mode : {"nolog", "NOLOG", "NoLog"}) {
        const run_result silent = box.run({"--vaaick", mode});
        EXPECT_EQ(silent.status, 255);
        EXPECT_EQ(silent.log, log_text{});
    }
}

TEST(status, vaaick_without_a_journal_exits_0_and_without_a_journal_root_255) {
    const sandbox box;
    const run_result none = box.run({"--vaaick", "log"});
    EXPECT_EQ(none.status, 0);
    EXPECT_EQ(none.out, "TARN_INFO: REPLAY jnlPath doesn't exist /var/lib/tarn/EP_JNL\n");
    box.configure("journal_root =\n");
    EXPECT_EQ(box.run({"--vaaick", "log"}).status, 255);
}
