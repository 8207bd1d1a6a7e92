// The line on a terminal about work that takes long.
#include "ctl/text/progress.h"

#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "ctl/check/look.h"
#include "ctl/inventory/take.h"
#include "system/support/lab_sample.h"

using namespace std::chrono_literals;

TEST(progress_text, a_third_is_a_third_of_the_bar_and_twice_the_time_is_left) {
    EXPECT_EQ(progress_text("LUN_7", 100, 300, 12, 80),
              "[##########                    ]  33 %  0:12, about 0:24 left  LUN_7");
}

TEST(progress_text, nothing_is_guessed_in_the_first_two_seconds) {
    EXPECT_EQ(progress_text("LUN_7", 150, 300, 1, 80),
              "[###############               ]  50 %  0:01  LUN_7");
}

TEST(progress_text, hours_have_minutes_and_no_seconds) {
    EXPECT_EQ(progress_text("x", 1, 4, 3700, 80),
              "[#######                       ]  25 %  1:01 h, about 3:05 h left  x");
}

TEST(progress_text, no_plan_and_more_than_was_planned) {
    EXPECT_EQ(progress_text("x", 5, 0, 9, 80), "[                              ]   0 %  0:09  x");
    EXPECT_EQ(progress_text("x", 500, 300, 9, 80),
              "[##############################] 100 %  0:09, about 0:00 left  x");
}

TEST(progress_text, a_narrow_terminal_gets_a_shorter_bar_or_none_and_never_a_second_line) {
    EXPECT_EQ(progress_text("LUN_7", 100, 200, 12, 50),
              "[#####      ]  50 %  0:12, about 0:12 left  LUN_7");
    EXPECT_EQ(progress_text("LUN_7", 100, 200, 12, 43), " 50 %  0:12, about 0:12 left  LUN_7");
    EXPECT_EQ(progress_text("LUN_7", 100, 200, 12, 30), " 50 %  0:12, about 0:12 left ");
    EXPECT_EQ(progress_text("LUN_7", 100, 200, 12, 6), " 50 %");
    EXPECT_EQ(progress_text("LUN_7", 100, 200, 12, 0), "");
}

TEST(progress_text, a_name_is_cut_between_characters) {
    EXPECT_EQ(progress_text("L\u00fcN", 0, 1, 0, 14), "  0 %  0:00  ");
    EXPECT_EQ(progress_text("L\u00fcN", 0, 1, 0, 15), "  0 %  0:00  L");
    EXPECT_EQ(progress_text("L\u00fcN", 0, 1, 0, 16), "  0 %  0:00  L\u00fc");
}

// A clock that stands still until a test moves it.
static progress_line::clock::time_point moment;
static progress_line::clock::time_point now() {
    return moment;
}

static const std::string HALF =
    "\r[###############               ]  50 %  0:02, about 0:02 left  m\x1b[K";
static const std::string WHOLE =
    "\r[##############################] 100 %  0:02, about 0:00 left  m\x1b[K";
static const std::string GONE = "\r\x1b[K";

TEST(progress_line, short_work_shows_nothing) {
    testing::internal::CaptureStderr();
    {
        progress_line line(true, now);
        line.plan(4000);
        moment += 499ms;
        line.did(4000, "m");
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(progress_line, it_is_drawn_five_times_a_second_and_gone_at_the_end) {
    testing::internal::CaptureStderr();
    {
        progress_line line(true, now);
        line.plan(4000);
        moment += 2s;
        line.did(2000, "m");
        moment += 199ms;
        line.did(1000, "m");
        moment += 1ms;
        line.did(1000, "m");
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), HALF + WHOLE + GONE);
}

TEST(progress_line, without_a_terminal_nothing_is_printed) {
    testing::internal::CaptureStderr();
    {
        progress_line line(false, now);
        line.plan(4000);
        moment += 9s;
        line.did(2000, "m");
        line.clear();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(progress_line, what_fails_keeps_its_reason) {
    testing::internal::CaptureStderr();
    progress_line line(true, now);
    moment += 9s;
    errno = EIO;
    line.did(1, "m");
    line.clear();
    EXPECT_EQ(errno, EIO);
    (void)testing::internal::GetCapturedStderr();
}

TEST(progress_part, what_was_left_out_counts_at_its_end) {
    testing::internal::CaptureStderr();
    {
        progress_line line(true, now);
        line.plan(4000);
        moment += 2s;
        { const progress_part part(&line, "m", 2000); }
        line.clear();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), HALF + GONE);
}

TEST(progress_part, a_position_before_or_past_its_end_changes_nothing) {
    testing::internal::CaptureStderr();
    {
        progress_line line(true, now);
        line.plan(4000);
        progress_part part(&line, "m", 2000);
        part.reached(1999);
        moment += 2s;
        part.reached(5);
        part.reached(9999);
        line.clear();
    }
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(printed, HALF + GONE);  // the rest, at its end
}

TEST(progress_part, without_a_line_it_does_nothing) {
    testing::internal::CaptureStderr();
    { progress_part(nullptr, "m", 2000).reached(2000); }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// A clock that is ten seconds later each time: every step is drawn.
static progress_line::clock::time_point later() {
    return moment += 10s;
}

// What a look at the sample draws, up to its end.
static std::string drawn(const std::string& sample, const look_taker& take, bool quick = false) {
    setenv("TARN_PLATFORM_CONF", (sample + "/platform.conf").c_str(), 1);
    testing::internal::CaptureStderr();
    progress_line line(true, later);
    check_request request;
    request.progress = &line;
    request.quick = quick;
    std::string problem;
    EXPECT_EQ(look_at_server(request, take, &problem), look_end::still) << problem;
    return testing::internal::GetCapturedStderr();
}

static bool check(server_look* look, std::string* problem) {
    check_report report;
    return check_look(look, &report, problem);
}

static bool note(server_look* look, std::string* problem) {
    inventory taken;
    return take_inventory(look, &taken, problem);
}

// The share of the last line before the end, which removes it.
static std::string last_share(const std::string& text) {
    const size_t percent = text.rfind(" %");
    EXPECT_TRUE(text.ends_with(GONE)) << text;
    return percent == std::string::npos ? "" : text.substr(percent - 3, 5);
}

// In a process of its own, since the configuration is read once.
static int judge_looks(const std::string& sample) {
    const std::string whole = drawn(sample, check);
    for (const char* seen : {"]   1 %", "LUN_0 of /", "table of /", "unmap buffer of /"}) {
        EXPECT_NE(whole.find(seen), std::string::npos) << seen << whole;
    }
    EXPECT_EQ(last_share(whole), "100 %") << whole;

    const std::string quick = drawn(sample, check, true);
    EXPECT_NE(quick.find("table of /"), std::string::npos) << quick;
    EXPECT_EQ(quick.find("LUN_0 of /"), std::string::npos) << quick;
    EXPECT_EQ(last_share(quick), "100 %") << quick;

    const std::string noted = drawn(sample, note);
    EXPECT_NE(noted.find("LUN_8 of /"), std::string::npos) << noted;
    EXPECT_EQ(noted.find("table of /"), std::string::npos) << noted;
    EXPECT_EQ(last_share(noted), "100 %") << noted;
    return testing::Test::HasFailure() ? 1 : 0;
}

TEST(progress_of, a_look_names_what_is_scanned_and_ends_with_all_of_it) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 3);
    const pid_t child = fork();
    if (child == 0) {
        _exit(judge_looks(sample));
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}
