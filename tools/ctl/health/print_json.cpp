// The fields are those of docs/schema/tarnctl-1.json.
#include <nlohmann/json.hpp>

#include "ctl/check/print.h"
#include "ctl/health/print.h"
#include "ctl/records.h"

static json_record number_or_null(const std::optional<uint64_t>& number) {
    return number ? json_number(*number) : json_record();
}

static json_record health_start(const health_report& report) {
    const check_report& now = report.facts.report;
    json_record record = start_record("health");
    record["state_file"] = report.state_file;
    record["journal"] = nullptr;
    if (!now.journal_path.empty()) {
        record["journal"] = {{"path", now.journal_path}, {"status", nullptr}};
        if (!now.journal_status.empty()) {
            record["journal"]["status"] = now.journal_status;
        }
    }
    return record;
}

static json_record counts_record(const std::map<std::string, uint64_t>& counts) {
    json_record record = json_record::object();
    for (const auto& [name, count] : counts) {
        record[name] = json_number(count);
    }
    return record;
}

static json_record last_check_record(const health_report& report) {
    json_record record = {{"record", "last_check"}, {"counts", report.last_counts}};
    if (report.last.kind != state_kind::known) {
        record["reason"] = report.last.reason;
        return record;
    }
    const state_record& last = report.last.record;
    record["completed"] = json_number(last.last.completed);
    record["age_seconds"] = json_number(report.age);
    record["verdict"] = last.verdict;
    record["exit"] = last.exit;
    record["complete"] = last.complete;
    record["severities"] = counts_record(last.severities);
    record["codes"] = counts_record(last.codes);
    return record;
}

static json_record volume_record(const volume_health& volume) {
    static constexpr const char* FORECASTS[] = {"unknown", "not-filling", "filling"};
    const volume_figures last = volume.last.value_or(volume_figures());
    json_record record = {{"record", "volume"},
                          {"volume", volume.now.root},
                          {"extent_size", json_number(volume.now.extent_size)},
                          {"used", number_or_null(last.used)},
                          {"leaked", number_or_null(last.leaked)},
                          {"free", number_or_null(volume.now.free)},
                          {"room", number_or_null(volume.now.room)},
                          {"forecast", FORECASTS[static_cast<size_t>(volume.full.kind)]}};
    if (volume.full.kind == forecast_kind::filling) {
        record["full_in_seconds"] = json_number(volume.full.seconds);
    }
    return record;
}

static json_record health_summary(const health_report& report) {
    return {{"record", "summary"},
            {"verdict", health_verdict(report)},
            {"exit", static_cast<int>(report.status)},
            {"findings", report.facts.report.findings.size()},
            {"unknown", report.unknown}};
}

static bool put_facts(FILE* out, const health_report& report) {
    const check_report& now = report.facts.report;
    for (const listed_finding& listed : listing_of(now, false)) {
        if (!put_record(out, finding_record(now.findings[listed.index], listed, false))) {
            return false;
        }
    }
    for (const volume_health& volume : report.volumes) {
        if (!put_record(out, volume_record(volume))) {
            return false;
        }
    }
    return put_record(out, last_check_record(report));
}

bool print_health_json(FILE* out, const health_report& report, const output_style& style) {
    return put_record(out, health_start(report)) && (style.quiet || put_facts(out, report)) &&
           put_record(out, health_summary(report)) && fflush(out) == 0;
}
