#include "ctl/health/judge.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include "ctl/check/look.h"
#include "ctl/check/place_words.h"
#include "ctl/text/escape.h"

forecast forecast_of(const std::vector<room_moment>& moments) {
    if (moments.size() < 2 || moments.back().time < moments.front().time + FORECAST_SPAN_MIN) {
        return {};
    }
    const auto count = static_cast<double>(moments.size());
    double mean_time = 0;
    double mean_room = 0;
    for (const room_moment& at : moments) {
        mean_time += static_cast<double>(at.time - moments.front().time) / count;
        mean_room += static_cast<double>(at.room) / count;
    }
    double above = 0;
    double below = 0;
    for (const room_moment& at : moments) {
        const double time = static_cast<double>(at.time - moments.front().time) - mean_time;
        above += time * (static_cast<double>(at.room) - mean_room);
        below += time * time;
    }
    const double slope = above / below;  // the times differ
    if (slope >= 0) {
        return {forecast_kind::not_filling, 0};
    }
    const double seconds = static_cast<double>(moments.back().room) / -slope;
    return {forecast_kind::filling, seconds < static_cast<double>(FORECAST_MAX)
                                        ? static_cast<uint64_t>(std::llround(seconds))
                                        : FORECAST_MAX};
}

static const volume_figures* figures_of(const state_moment& moment, const std::string& root) {
    for (const volume_figures& figures : moment.volumes) {
        if (figures.volume == root) {
            return &figures;
        }
    }
    return nullptr;
}

// The room of a volume at the checks that are known.
static std::vector<room_moment> past_of(const state_record& record, const std::string& root) {
    std::vector<room_moment> moments;
    const auto add = [&](const state_moment& moment) {
        const volume_figures* figures = figures_of(moment, root);
        const bool is_later = moments.empty() || moments.back().time < moment.completed;
        if (figures != nullptr && figures->room && is_later) {
            moments.push_back({moment.completed, *figures->room});
        }
    };
    for (const state_moment& moment : record.history) {
        add(moment);
    }
    add(record.last);
    return moments;
}

static volume_health volume_of(const health_report& report, const volume_now& now) {
    volume_health volume = {now, {}, {}};
    if (report.last.kind != state_kind::known) {
        return volume;
    }
    const state_record& record = report.last.record;
    if (const volume_figures* last = figures_of(record.last, now.root)) {
        volume.last = *last;
    }
    std::vector<room_moment> moments = past_of(record, now.root);
    if (now.room && !moments.empty() && moments.back().time < report.now) {
        moments.push_back({report.now, *now.room});
        volume.full = forecast_of(moments);
    }
    return volume;
}

std::string age_words(uint64_t seconds) {
    constexpr struct {
        uint64_t seconds;
        const char* word;
    } UNITS[] = {{DAY, "day"}, {3600, "hour"}, {60, "minute"}};
    for (const auto& unit : UNITS) {
        if (seconds >= unit.seconds) {
            return count_words(seconds / unit.seconds, unit.word);
        }
    }
    return count_words(seconds, "second");
}

std::string time_words(uint64_t time) {
    const auto seconds = static_cast<time_t>(time);
    struct tm parts = {};
    char text[64] = {};
    if (time > INT64_MAX || gmtime_r(&seconds, &parts) == nullptr ||
        strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", &parts) == 0) {
        return "at no possible time";
    }
    return text;
}

static std::string words_of_verdict(int status) {
    switch (status) {
        case EXIT_URGENT:
            return "found something urgent";
        case EXIT_DAMAGE:
            return "found damage";
        case EXIT_COUNTS:
            return "found lost space or wrong counts";
        case EXIT_INCOMPLETE:
            return "could not look at everything";
        default:
            return "was clean";
    }
}

std::string last_check_words(const health_report& report) {
    if (report.last.kind != state_kind::known) {
        return "The last full check is not known: " + shown(report.state_file) + ": " +
               report.last.reason + ".";
    }
    const state_record& record = report.last.record;
    const std::string verdict = words_of_verdict(record.exit);
    if (record.last.completed > report.now + CLOCK_SLACK) {
        return "The last full check " + verdict + ", but it is of the future (" +
               time_words(record.last.completed) + "): is the clock right?";
    }
    return "The last full check, " + age_words(report.age) + " ago, " + verdict + "." +
           (report.last_counts ? "" : " That is too old: it should be at most 10 days.");
}

static void judge_journal(health_report* report) {
    if (report->last_counts && report->facts.report.journal_status == "none" &&
        !report->last.record.journal.empty()) {
        report->unknown.emplace_back(
            "There was a journal at the last full check, and there is none now.");
    }
}

static void judge_last_check(health_report* report) {
    if (report->last.kind == state_kind::known) {
        const uint64_t completed = report->last.record.last.completed;
        report->age = report->now > completed ? report->now - completed : 0;
        report->last_counts =
            completed <= report->now + CLOCK_SLACK && report->age <= CHECK_AGE_MAX;
    }
    if (!report->last_counts) {
        report->unknown.push_back(last_check_words(*report));
    }
}

static bool is_there(const health_report& report, const std::string& root) {
    return std::any_of(report.facts.volumes.begin(), report.facts.volumes.end(),
                       [&root](const volume_now& now) { return now.root == root; });
}

// A volume that came after the last full check has not been looked at. One that went may be a
// mount that is missing: without a configuration nothing else tells.
static void judge_volumes(health_report* report) {
    for (const volume_now& now : report->facts.volumes) {
        report->volumes.push_back(volume_of(*report, now));
        if (report->last_counts && figures_of(report->last.record.last, now.root) == nullptr) {
            report->unknown.push_back("The last full check did not look at " + shown(now.root) +
                                      ".");
        }
    }
    if (report->facts.problem.empty() && report->facts.volumes.empty()) {
        report->unknown.emplace_back(NO_VOLUMES);
    }
    if (!report->last_counts || !report->facts.problem.empty()) {
        return;
    }
    for (const volume_figures& figures : report->last.record.last.volumes) {
        if (!is_there(*report, figures.volume)) {
            report->unknown.push_back(shown(figures.volume) +
                                      " was there at the last full check, and is not now.");
        }
    }
}

static ctl_exit worse(ctl_exit one, ctl_exit other) {
    static constexpr ctl_exit ORDER[] = {EXIT_CLEAN, EXIT_COUNTS, EXIT_INCOMPLETE, EXIT_DAMAGE,
                                         EXIT_URGENT};
    const auto rank = [](ctl_exit status) {
        return std::find(std::begin(ORDER), std::end(ORDER), status) - std::begin(ORDER);
    };
    return rank(one) > rank(other) ? one : other;
}

// A bad verdict holds until a check says otherwise, however old it is; a good one does not.
static ctl_exit status_of(const health_report& report) {
    ctl_exit status = report.unknown.empty() ? EXIT_CLEAN : EXIT_INCOMPLETE;
    if (report.facts.problem.empty()) {
        status = worse(status, exit_of(report.facts.report));
    }
    if (report.last.kind == state_kind::known) {
        status = worse(status, static_cast<ctl_exit>(report.last.record.exit));
    }
    return status;
}

health_report judge_health(server_facts facts, state_reading last, const std::string& state_file,
                           uint64_t now) {
    health_report report;
    report.facts = std::move(facts);
    report.last = std::move(last);
    report.state_file = state_file;
    report.now = now;
    if (!report.facts.problem.empty()) {
        report.unknown.push_back("The server cannot be looked at: " + report.facts.problem + ".");
    }
    judge_last_check(&report);
    judge_journal(&report);
    judge_volumes(&report);
    report.status = status_of(report);
    return report;
}
