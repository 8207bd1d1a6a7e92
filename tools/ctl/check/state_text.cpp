// From a report to the bytes of a state file.
#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "ctl/check/listing.h"
#include "ctl/check/state_file.h"
#include "ctl/records.h"
#include "ctl/text/escape.h"
#include "store/crc32c.h"
#include "store/descriptor.h"
#include "tbl/tbl_format.h"

std::string verdict_word(int status) {
    switch (status) {
        case EXIT_CLEAN:
            return "clean";
        case EXIT_COUNTS:
            return "counts";
        case EXIT_DAMAGE:
            return "damage";
        case EXIT_URGENT:
            return "urgent";
        case EXIT_INCOMPLETE:
            return "incomplete";
        default:
            return "";
    }
}

static void count_findings(const check_report& report, state_record* record) {
    for (const char* severity : {"urgent", "damage", "count", "note", "unreadable"}) {
        record->severities[severity] = 0;
    }
    for (const finding& one : report.findings) {
        const uint64_t count = is_rest(one) ? one.number : 1;
        const bool unread = one.code == finding_code::X01;
        record->severities[unread ? "unreadable" : severity_word(one.level)] += count;
        record->codes[finding_row_of(one.code)->name] += count;
        record->complete = record->complete && !unread;
    }
}

state_record state_of(const check_report& report, const machine_identity& here, uint64_t now) {
    state_record record;
    record.tool = "tarnctl " TARN_VERSION;
    record.machine = here;
    record.journal = report.journal_status;
    record.verdict = verdict_of(report);
    record.exit = exit_of(report);
    record.complete = report.complete;
    count_findings(report, &record);
    record.last = {now, report.figures};
    for (volume_figures& figures : record.last.volumes) {
        const int64_t room = figures.used ? io_available(figures.volume.c_str()) : -1;
        if (room >= 0) {
            figures.room = static_cast<uint64_t>(room);
        }
    }
    return record;
}

static json_record figure(const std::optional<uint64_t>& value) {
    return value ? json_number(*value) : json_record();
}

// Bytes that are no UTF-8 would make the document unreadable: they are kept as hexadecimal.
static json_record volume_record(const volume_figures& figures) {
    json_record record = {{"volume", shown(figures.volume)}};
    if (shown(figures.volume) != figures.volume) {
        record["volume_hex"] = hex_of_bytes(figures.volume);
    }
    record["extent_size"] = json_number(figures.extent_size);
    record["total"] = json_number(TBL_TOTAL_COUNT);
    record["used"] = figure(figures.used);
    record["free"] = figure(figures.free);
    record["leaked"] = figure(figures.leaked);
    record["room"] = figure(figures.room);
    return record;
}

static json_record moment_record(const state_moment& moment) {
    json_record volumes = json_record::array();
    for (const volume_figures& figures : moment.volumes) {
        volumes.push_back(volume_record(figures));
    }
    return {{"completed", json_number(moment.completed)}, {"volumes", volumes}};
}

static json_record counts_record(const std::map<std::string, uint64_t>& counts) {
    json_record record = json_record::object();
    for (const auto& [name, count] : counts) {
        record[name] = json_number(count);
    }
    return record;
}

std::string state_text(const state_record& state) {
    json_record record = {{"file", "tarnctl state"},
                          {"format", STATE_FORMAT},
                          {"tool", state.tool},
                          {"server", state.machine.server},
                          {"machine", state.machine.machine},
                          {"journal", state.journal},
                          {"verdict", state.verdict},
                          {"exit", state.exit},
                          {"complete", state.complete},
                          {"severities", counts_record(state.severities)},
                          {"codes", counts_record(state.codes)}};
    record.update(moment_record(state.last));
    record["history"] = json_record::array();
    for (const state_moment& moment : state.history) {
        record["history"].push_back(moment_record(moment));
    }
    std::string text = json_line(record);
    text.resize(text.size() - 2);  // without "}\n"
    uint32_t checksum = 0;
    tarn_crc32c(text.data(), static_cast<uint32_t>(text.size()), &checksum);
    char tail[32];
    snprintf(tail, sizeof tail, ",\"crc32c\":\"%08x\"}\n", checksum);
    return text + tail;
}
