#include "volume/stop_signals.h"

#include <csignal>
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/stop_signal_defaults.h"

class stop_signals : public testing::Test {
protected:
    stop_signals() { stop_signals_forget(); }  // those of an earlier test in this process
    ~stop_signals() override { stop_signals_forget(); }
    static bool is_blocked(int number) {
        sigset_t mask;
        sigprocmask(SIG_SETMASK, nullptr, &mask);
        return sigismember(&mask, number) == 1;
    }
    const stop_signal_defaults defaults_;
    log_capture log_;
};

TEST_F(stop_signals, that_are_not_blocked_are_never_seen) {
    EXPECT_FALSE(stop_requested());
    EXPECT_FALSE(is_blocked(SIGTERM));
}

TEST_F(stop_signals, are_each_seen_and_logged_once) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        log_.clear();
        stop_signals_block();
        EXPECT_TRUE(is_blocked(number));
        EXPECT_FALSE(stop_requested());
        raise(number);
        EXPECT_TRUE(stop_requested());
        EXPECT_TRUE(stop_requested());
        EXPECT_EQ(log_.lines().size(), 1u);
        stop_signals_forget();
        EXPECT_FALSE(is_blocked(number));
    }
    EXPECT_EQ(log_.lines(), log_lines({"ERR: stop_requested(#) signal 1 (Hangup) stops this "
                                       "run\n"}));
}

// As under nohup, or in a background job of a shell: they would not have ended the process either.
TEST_F(stop_signals, that_the_caller_ignores_stop_nothing) {
    const auto before = signal(SIGHUP, SIG_IGN);
    stop_signals_block();
    raise(SIGHUP);
    EXPECT_FALSE(stop_requested());
    raise(SIGINT);
    EXPECT_TRUE(stop_requested());
    EXPECT_TRUE(log_.has("signal 2 (Interrupt)"));
    signal(SIGHUP, before);
}

TEST_F(stop_signals, that_the_caller_blocks_stop_nothing) {
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, &before);
    stop_signals_block();
    raise(SIGTERM);
    EXPECT_FALSE(stop_requested());
    stop_signals_forget();
    EXPECT_TRUE(is_blocked(SIGTERM));
    const timespec at_once = {};
    EXPECT_EQ(sigtimedwait(&blocked, nullptr, &at_once), SIGTERM);
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(stop_signals, of_another_number_stop_nothing) {
    stop_signals_block();
    EXPECT_FALSE(is_blocked(SIGUSR1));
    EXPECT_FALSE(is_blocked(SIGQUIT));
}
