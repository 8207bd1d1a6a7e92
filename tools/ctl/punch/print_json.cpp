// The fields are those of docs/schema/tarnctl-1.json: a new one may come, an old one never changes
// its meaning.
#include <nlohmann/json.hpp>

#include "ctl/check/print.h"
#include "ctl/punch/report.h"
#include "ctl/records.h"

static json_record word_or_null(const std::string& word) {
    return word.empty() ? json_record() : json_record(word);
}

static json_record refusal_record(const punch_refusal& refusal) {
    return {{"record", "refusal"},
            {"code", word_or_null(refusal.code)},
            {"volume", word_or_null(refusal.volume)},
            {"reason", refusal.words}};
}

static json_record range_record(const punch_volume& volume, const free_range& range) {
    return {{"record", "punch"},
            {"volume", volume.root},
            {"lpa", {{"first", json_number(range.first)}, {"count", json_number(range.count)}}},
            {"data_bytes", std::to_string(range.bytes)},
            {"command", punch_line(volume, range)}};
}

static json_record volume_record(const punch_volume& volume) {
    const free_space& space = volume.space;
    return {{"record", "free_space"},
            {"volume", volume.root},
            {"extent_size", json_number(volume.extent_size)},
            {"extents", json_number(space.extents)},
            {"data_bytes", std::to_string(space.data)},
            {"hole_bytes", std::to_string(space.holes)},
            {"commands", json_number(space.ranges.size())}};
}

static json_record summary_of(const punch_report& report, uint64_t commands) {
    const bool refused = !report.refusals.empty();
    return {{"record", "summary"},
            {"verdict", refused         ? "refused"
                        : commands == 0 ? "nothing"
                                        : "ready"},
            {"exit", static_cast<int>(refused ? EXIT_REFUSED : EXIT_CLEAN)},
            {"complete", !refused},
            {"commands", json_number(commands)},
            {"seconds", report.seconds}};
}

static bool put_volume(FILE* out, const punch_volume& volume, bool quiet) {
    for (const free_range& range : volume.space.ranges) {
        if (!quiet && !put_record(out, range_record(volume, range))) {
            return false;
        }
    }
    return put_record(out, volume_record(volume));
}

bool print_punch_json(FILE* out, const punch_report& report, bool quiet) {
    if (!put_record(out, opening_record("punch", report.opening))) {
        return false;
    }
    for (const punch_refusal& refusal : report.refusals) {
        if (!put_record(out, refusal_record(refusal))) {
            return false;
        }
    }
    uint64_t commands = 0;
    for (const punch_volume& volume : report.volumes) {
        commands += volume.space.ranges.size();
        if (!put_volume(out, volume, quiet)) {
            return false;
        }
    }
    return put_record(out, summary_of(report, commands)) && fflush(out) == 0;
}
