// What the facts of now and the last full check come to. Below: facts.h, state_file.h.
// Above: the printers of `tarnctl health`.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/check/state_file.h"
#include "ctl/health/facts.h"

constexpr uint64_t DAY = 86400;                   // seconds
constexpr uint64_t CHECK_AGE_MAX = 10 * DAY;      // of a check that still says something
constexpr uint64_t CLOCK_SLACK = 300;             // seconds that a check may lie in the future
constexpr uint64_t FORECAST_MAX = 1000000000000;  // seconds
constexpr uint64_t FORECAST_SPAN_MIN = DAY;       // of the history that a forecast is made from

// When the room of a volume will be used up, if it shrinks as it did on average.
enum class forecast_kind { unknown, not_filling, filling };
struct forecast {
    forecast_kind kind = forecast_kind::unknown;
    uint64_t seconds = 0;  // from now, FORECAST_MAX at most; of a volume that is filling
};

struct room_moment {
    uint64_t time;  // seconds since 1970
    uint64_t room;  // bytes
};
// The straight line with the least squares through the moments, from the room of the last one on.
forecast forecast_of(const std::vector<room_moment>& moments);

struct volume_health {
    volume_now now;
    std::optional<volume_figures> last;  // of the last full check
    forecast full;
};

struct health_report {
    server_facts facts;
    std::string state_file;    // path
    state_reading last;        // the last full check
    uint64_t now = 0;          // seconds since 1970
    uint64_t age = 0;          // of the last full check, if it is known; seconds
    bool last_counts = false;  // it is known, and neither too old nor of the future
    std::vector<volume_health> volumes;
    std::vector<std::string> unknown;  // sentences: why it cannot be said that all is well
    ctl_exit status = EXIT_CLEAN;
};

health_report judge_health(server_facts facts, state_reading last, const std::string& state_file,
                           uint64_t now);

// "6 days", "3 hours", "1 minute".
std::string age_words(uint64_t seconds);
// "2026-11-22 09:00 UTC".
std::string time_words(uint64_t time);
// "The last full check, 6 days ago, was clean."; what is unknown about it instead.
std::string last_check_words(const health_report& report);
