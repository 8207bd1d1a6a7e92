// What facts and the last full check come to: exit status, age limits, volumes that came or went,
// and when a volume is full.
#include <gtest/gtest.h>

#include "ctl/health/judge.h"
#include "ctl/health/print.h"

constexpr uint64_t NOW = 1700000000;
constexpr uint64_t TEN_DAYS = 864000;

static server_facts sound_facts() {
    server_facts facts;
    facts.report.journal_path = "/j/EP_JNL";
    facts.report.journal_status = "success";
    facts.volumes = {{"/v", 1048576, 100, 5000000}};
    return facts;
}

static state_reading checked(uint64_t completed, int exit = 0) {
    state_reading reading = {state_kind::known, "", {}};
    reading.record.exit = exit;
    reading.record.verdict = verdict_word(exit);
    reading.record.journal = "success";
    reading.record.last = {completed, {{"/v", 1048576, 10, 100, 1, 6000000}}};
    return reading;
}

static health_report judged(const state_reading& last, server_facts facts = sound_facts()) {
    return judge_health(std::move(facts), last, "/s", NOW);
}

static server_facts facts_with(severity level, finding_code code) {
    server_facts facts = sound_facts();
    facts.report.findings.emplace_back();
    facts.report.findings[0].code = code;
    facts.report.findings[0].level = level;
    return facts;
}

TEST(health_status, of_a_sound_server_is_0) {
    const health_report report = judged(checked(NOW - 86400));
    EXPECT_EQ(report.status, 0);
    EXPECT_TRUE(report.last_counts);
    EXPECT_EQ(report.age, 86400u);
    EXPECT_TRUE(report.unknown.empty());
    EXPECT_EQ(last_check_words(report), "The last full check, 1 day ago, was clean.");
}

TEST(health_status, is_unknown_if_the_check_is_older_than_10_days) {
    EXPECT_EQ(judged(checked(NOW - TEN_DAYS)).status, 0);
    const health_report old = judged(checked(NOW - TEN_DAYS - 1));
    EXPECT_EQ(old.status, 6);
    EXPECT_EQ(old.unknown, (std::vector<std::string>{
                               "The last full check, 10 days ago, was clean. That is too old: it "
                               "should be at most 10 days."}));
    EXPECT_EQ(judged(checked(0)).status, 6);
}

TEST(health_status, is_unknown_if_the_check_is_of_the_future) {
    EXPECT_EQ(judged(checked(NOW + 300)).status, 0);
    EXPECT_EQ(judged(checked(NOW + 300)).age, 0u);
    const health_report future = judged(checked(NOW + 301));
    EXPECT_EQ(future.status, 6);
    EXPECT_EQ(future.unknown,
              (std::vector<std::string>{"The last full check was clean, but it is of the future "
                                        "(2023-11-14 22:18 UTC): is the clock right?"}));
    EXPECT_EQ(judged(checked(UINT64_MAX)).status, 6);
    EXPECT_EQ(judged(checked(INT64_MAX)).status, 6);
}

TEST(health_status, is_unknown_if_no_check_is) {
    const state_kind kinds[] = {state_kind::missing,     state_kind::unreadable,
                                state_kind::not_a_state, state_kind::damaged,
                                state_kind::newer,       state_kind::foreign};
    for (const state_kind kind : kinds) {
        const health_report report = judged({kind, "it is odd", checked(NOW, 5).record});
        EXPECT_EQ(report.status, 6);
        EXPECT_EQ(report.unknown,
                  (std::vector<std::string>{"The last full check is not known: /s: it is odd."}));
        EXPECT_EQ(plugin_status(report), 3);
    }
}

// Rows: status of the check; columns: worst finding now.
TEST(health_status, is_the_worse_of_check_and_facts) {
    constexpr severity LEVELS[] = {severity::note, severity::count, severity::damage,
                                   severity::urgent};
    constexpr struct {
        int check;
        int status[4];
        int plugin[4];
    } ROWS[] = {{0, {0, 3, 4, 5}, {0, 1, 2, 2}},
                {3, {3, 3, 4, 5}, {1, 1, 2, 2}},
                {4, {4, 4, 4, 5}, {2, 2, 2, 2}},
                {5, {5, 5, 5, 5}, {2, 2, 2, 2}},
                {6, {6, 6, 4, 5}, {3, 3, 2, 2}}};
    for (const auto& row : ROWS) {
        for (size_t i = 0; i < 4; i++) {
            const health_report report =
                judged(checked(NOW, row.check), facts_with(LEVELS[i], finding_code::J01));
            EXPECT_EQ(report.status, row.status[i]) << row.check << " " << i;
            EXPECT_EQ(plugin_status(report), row.plugin[i]) << row.check << " " << i;
        }
    }
}

TEST(health_status, of_an_old_check_stays_bad) {
    EXPECT_EQ(judged(checked(NOW - 2 * TEN_DAYS, 5)).status, 5);
    EXPECT_EQ(judged(checked(NOW - 2 * TEN_DAYS, 4)).status, 4);
    EXPECT_EQ(judged(checked(NOW - 2 * TEN_DAYS, 3)).status, 6);
    EXPECT_EQ(judged(checked(NOW + TEN_DAYS, 5)).status, 5);
    EXPECT_EQ(plugin_status(judged(checked(NOW - 2 * TEN_DAYS, 3))), 3);
}

TEST(health_status, is_unknown_if_something_cannot_be_read_now) {
    EXPECT_EQ(judged(checked(NOW), facts_with(severity::note, finding_code::X01)).status, 6);
    server_facts facts;
    facts.problem = "no configuration";
    const health_report report = judged(checked(NOW), facts);
    EXPECT_EQ(report.status, 6);
    EXPECT_EQ(report.unknown,
              (std::vector<std::string>{"The server cannot be looked at: no configuration."}));
}

TEST(health_status, is_unknown_if_a_volume_came_or_went) {
    server_facts facts = sound_facts();
    facts.volumes.push_back({"/new", 1048576, 1, 1});
    const health_report came = judged(checked(NOW), facts);
    EXPECT_EQ(came.status, 6);
    EXPECT_EQ(came.unknown,
              (std::vector<std::string>{"The last full check did not look at /new."}));
    facts.volumes.erase(facts.volumes.begin());
    EXPECT_EQ(judged(checked(NOW), facts).unknown,
              (std::vector<std::string>{"The last full check did not look at /new.",
                                        "/v was there at the last full check, and is not now."}));
    facts.volumes.clear();
    EXPECT_EQ(judged(checked(NOW), facts).unknown,
              (std::vector<std::string>{"There is no volume with metadata of LUNs.",
                                        "/v was there at the last full check, and is not now."}));
}

TEST(health_status, is_unknown_if_the_journal_went) {
    server_facts facts = sound_facts();
    facts.report.journal_status = "none";
    EXPECT_EQ(judged(checked(NOW), facts).status, 6);
    state_reading without = checked(NOW);
    without.record.journal = "";
    EXPECT_EQ(judged(without, facts).status, 0);
}

// 100 bytes less each day, 250 left: 2.5 days.
TEST(health_forecast, is_a_straight_line) {
    const forecast full = forecast_of({{1000, 550}, {1000 + 86400, 450}, {1000 + 3 * 86400, 250}});
    EXPECT_EQ(full.kind, forecast_kind::filling);
    EXPECT_EQ(full.seconds, 216000u);
}

// Rooms 10, 6, 8 on days 0, 1, 2: the best line falls by 1 a day; 8 are left.
TEST(health_forecast, takes_the_least_squares) {
    const forecast full = forecast_of({{0, 10}, {86400, 6}, {2 * 86400, 8}});
    EXPECT_EQ(full.kind, forecast_kind::filling);
    EXPECT_EQ(full.seconds, 691200u);
}

TEST(health_forecast, has_an_end) {
    EXPECT_EQ(forecast_of({{0, uint64_t{1} << 62}, {86400, (uint64_t{1} << 62) - 4096}}).seconds,
              1000000000000u);
}

TEST(health_forecast, is_none_if_room_grows_or_stays) {
    EXPECT_EQ(forecast_of({{0, 5}, {86400, 5}}).kind, forecast_kind::not_filling);
    EXPECT_EQ(forecast_of({{0, 5}, {86400, 6}}).kind, forecast_kind::not_filling);
}

TEST(health_forecast, needs_a_day) {
    EXPECT_EQ(forecast_of({}).kind, forecast_kind::unknown);
    EXPECT_EQ(forecast_of({{0, 5}}).kind, forecast_kind::unknown);
    EXPECT_EQ(forecast_of({{0, 5}, {86399, 4}}).kind, forecast_kind::unknown);
    EXPECT_EQ(forecast_of({{0, 5}, {86400, 4}}).kind, forecast_kind::filling);
}

// Room 9, 8, 6 million at checks 4, 3 and 1 days ago, 5 now: one million a day, so 5 days.
TEST(health_forecast, comes_from_the_history_and_from_now) {
    state_reading last = checked(NOW - 86400);
    last.record.history = {{NOW - 4 * 86400, {{"/v", 1048576, 1, 1, 1, 9000000}}},
                           {NOW - 3 * 86400, {{"/w", 1, 1, 1, 1, 1}, {"/v", 1, 1, 1, 1, 8000000}}},
                           {NOW - 2 * 86400, {{"/v", 1, 1, 1, 1, std::nullopt}}}};
    const health_report report = judged(last);
    ASSERT_EQ(report.volumes.size(), 1u);
    EXPECT_EQ(report.volumes[0].full.kind, forecast_kind::filling);
    EXPECT_EQ(report.volumes[0].full.seconds, 432000u);
    EXPECT_EQ(report.volumes[0].last->used, 10u);
}

TEST(health_forecast, is_none_of_a_volume_that_is_not_there_or_with_a_clock_set_back) {
    server_facts facts = sound_facts();
    facts.volumes[0].room = std::nullopt;
    EXPECT_EQ(judged(checked(NOW - 864000), facts).volumes[0].full.kind, forecast_kind::unknown);
    EXPECT_EQ(judged(checked(NOW - 864000), facts).volumes[0].last->used, 10u);
    EXPECT_EQ(judged(checked(NOW)).volumes[0].full.kind, forecast_kind::unknown);
    EXPECT_EQ(judged(checked(NOW + 200)).volumes[0].full.kind, forecast_kind::unknown);
}

TEST(health_words, of_an_age) {
    EXPECT_EQ(age_words(0), "0 seconds");
    EXPECT_EQ(age_words(59), "59 seconds");
    EXPECT_EQ(age_words(60), "1 minute");
    EXPECT_EQ(age_words(7199), "1 hour");
    EXPECT_EQ(age_words(172800), "2 days");
    EXPECT_EQ(time_words(1700000000), "2023-11-14 22:13 UTC");
}
