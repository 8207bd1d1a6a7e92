// The judge of runs under faults, on runs made up by hand.
#include "campaign/faults_judge.h"

#include <csignal>
#include <gtest/gtest.h>

static const std::map<std::string, std::string> BEFORE = {
    {"journal/EP_JNL", "old"}, {"volume1/@EP/EP_TBL", "old"}, {"volume1/@EP/EP_FRI", "old"}};
static const std::map<std::string, std::string> RIGHT = {{"volume1/@EP/EP_TBL", "new"},
                                                         {"volume1/@EP/EP_FRI", "new"}};

// A start-up replay that deletes the journal, and one run of it under a fault.
class judged : public testing::Test {
protected:
    judged() {
        undisturbed_ = {{0, 0, false, "text", {"line"}, {}, ""}, RIGHT};
        got_ = undisturbed_;
        got_.run.hit = "stat /w/volume1/@EP";
    }
    std::string result(const char* command = "startup-replay", unsigned traits = OUTPUT) {
        const command_form form = {command, sample_kind::crashed, "", 0, traits, ""};
        const verdict found = judge(form, BEFORE, undisturbed_, got_);
        return (found.wrong ? "wrong: " : "right: ") + found.result;
    }
    observed undisturbed_;
    observed got_;
};

TEST_F(judged, a_run_with_the_undisturbed_result_passes) {
    EXPECT_EQ(result(), "right: as undisturbed");
}

TEST_F(judged, a_run_that_fails_and_keeps_everything_passes) {
    got_.run.status = 255;
    got_.tree = BEFORE;
    EXPECT_EQ(result(), "right: failed");
}

TEST_F(judged, a_run_that_never_made_the_call_proves_nothing) {
    got_.run.hit = "";
    EXPECT_EQ(result(), "wrong: the call was not reached");
}

TEST_F(judged, a_journal_that_is_gone_after_a_failure_is_found) {
    got_.run.status = 255;
    EXPECT_EQ(result(), "wrong: V1 the journal is gone although the run failed");
    undisturbed_.tree = BEFORE;
    EXPECT_EQ(result(), "wrong: V1 the journal is gone");
}

TEST_F(judged, a_journal_that_is_gone_with_a_wrong_result_is_found) {
    got_.tree["volume1/@EP/EP_TBL"] = "old";
    EXPECT_EQ(result(), "wrong: V1 the journal is gone and the result is wrong");
}

TEST_F(judged, the_last_sync_may_fail_after_the_journal_is_gone_if_the_run_reports_it) {
    got_.run.hit = "sync /w/journal";
    got_.run.status = 255;
    EXPECT_EQ(result(), "right: failed");
}

TEST_F(judged, a_missing_live_file_is_found_whatever_the_run_reports) {
    got_.tree = BEFORE;
    got_.tree.erase("volume1/@EP/EP_FRI");
    got_.run.status = 255;
    EXPECT_EQ(result(), "wrong: V2 no live EP_FRI");
}

TEST_F(judged, success_with_wrong_files_is_found) {
    got_.tree["journal/EP_JNL"] = "old";
    EXPECT_EQ(result(), "wrong: V3 success, and the files are wrong");
}

TEST_F(judged, success_with_different_output_is_found_if_the_output_is_the_result) {
    got_.run.out = "other text";
    EXPECT_EQ(result(), "wrong: V3 success, and the output is wrong");
    EXPECT_EQ(result("startup-replay", PLAIN), "right: as undisturbed");
}

TEST_F(judged, success_is_wrong_if_the_undisturbed_run_fails) {
    undisturbed_.run.status = 255;
    EXPECT_EQ(result(), "wrong: V3 success, where the undisturbed run fails");
}

TEST_F(judged, a_crash_a_hang_and_a_flood_are_found) {
    got_.run.log.assign(5001, "line");
    EXPECT_EQ(result(), "right: as undisturbed");
    got_.run.log.assign(5002, "line");
    EXPECT_EQ(result(), "wrong: V4 floods the log");
    got_.run.status = -1;
    got_.run.signal = SIGSEGV;
    EXPECT_EQ(result(), "wrong: V4 ended by a signal");
    got_.run.hung = true;
    EXPECT_EQ(result(), "wrong: V4 does not end");
}

TEST_F(judged, a_display_may_fail_but_must_change_nothing) {
    got_.run.out = "half of it";
    EXPECT_EQ(result("search tbl"), "right: known: a display that was reached counts as done");
    got_.tree["new"] = "file";
    EXPECT_EQ(result("search tbl"), "wrong: V1 the journal is gone and the result is wrong");
}

TEST_F(judged, a_work_directory_may_stay_when_it_cannot_be_removed) {
    undisturbed_.tree["journal/EP_JNL"] = "old";
    got_.tree = undisturbed_.tree;
    got_.tree["volume1/@EP_FIX"] = "directory";
    got_.run.hit = "spawn /bin/rm";
    EXPECT_EQ(result("reconstruct"), "right: known: a work directory stays, and all else is right");
    got_.tree["volume1/@EP/EP_TBL"] = "old";
    EXPECT_EQ(result("reconstruct"), "wrong: V3 success, and the files are wrong");
}
