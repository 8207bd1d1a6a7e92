#include <csignal>
#include <gtest/gtest.h>
#include <string>

#include "cli/one_key_commands.h"
#include "support/log_capture.h"
#include "support/sample_volumes.h"
#include "support/stop_signal_defaults.h"
#include "volume/stop_signals.h"

static int runs;
static int seen_argument;

static int succeed(int, char**, int argument) {
    runs++;
    seen_argument = argument;
    return 5;
}

static int fail(int, char**, int) {
    runs++;
    return -7;
}

class service_pause : public testing::Test {
protected:
    service_pause() { runs = 0; }
    ~service_pause() override { stop_signals_forget(); }
    sample_volumes volumes_;
    arguments none_{{}};
    const stop_signal_defaults defaults_;
    log_capture log_;
};

TEST_F(service_pause, the_procedure_runs_between_pause_and_resume) {
    EXPECT_EQ(run_with_iscsi_paused(none_.count(), none_.values(), 3, succeed, "a reason"), 5);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(seen_argument, 3);
    EXPECT_EQ(volumes_.service_calls(), "pause iscsitrg a reason\nresume iscsitrg a reason\n");
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(service_pause, the_service_is_resumed_after_a_procedure_that_fails) {
    EXPECT_EQ(run_with_iscsi_paused(none_.count(), none_.values(), 0, fail, "a reason"), -7);
    EXPECT_EQ(volumes_.service_calls(), "pause iscsitrg a reason\nresume iscsitrg a reason\n");
}

TEST_F(service_pause, nothing_runs_when_the_service_cannot_be_paused) {
    volumes_.let_service_fail("pause");
    EXPECT_EQ(run_with_iscsi_paused(none_.count(), none_.values(), 0, succeed, "a reason"), -1);
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(volumes_.service_calls(), "pause iscsitrg a reason\n");
    EXPECT_EQ(log_.last(), "tarn:# failed to pause iscsi service");
}

TEST_F(service_pause, a_service_that_does_not_resume_fails_the_run) {
    volumes_.let_service_fail("resume");
    EXPECT_EQ(run_with_iscsi_paused(none_.count(), none_.values(), 0, succeed, "a reason"), -1);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(log_.last(), "tarn:# failed to start iscsi service");
}

static int ask(int, char**, int) {
    runs++;
    return stop_requested() ? -1 : 0;
}

TEST_F(service_pause, a_stop_signal_before_the_procedure_is_left_to_it) {
    stop_signals_block();
    raise(SIGTERM);
    EXPECT_EQ(run_with_iscsi_paused(none_.count(), none_.values(), 0, ask, "a reason"), -1);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(volumes_.service_calls(), "pause iscsitrg a reason\nresume iscsitrg a reason\n");
}

static int stop_in_the_middle(int, char**, int) {
    raise(SIGINT);
    return stop_requested() ? -1 : 0;
}

TEST_F(service_pause, a_stop_signal_during_the_procedure_waits_for_its_end) {
    EXPECT_EQ(run_with_iscsi_paused(none_.count(), none_.values(), 0, stop_in_the_middle, "x"), -1);
    EXPECT_EQ(volumes_.service_calls(), "pause iscsitrg x\nresume iscsitrg x\n");
}
