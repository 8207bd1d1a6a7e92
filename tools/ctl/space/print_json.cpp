// The fields are those of docs/schema/tarnctl-1.json: a new one may come, an old one never changes
// its meaning.
#include <nlohmann/json.hpp>

#include "ctl/check/print.h"
#include "ctl/records.h"
#include "ctl/space/report.h"

static const char* worth_word(figure_worth worth) {
    switch (worth) {
        case figure_worth::at_least:
            return "at least";
        case figure_worth::at_most:
            return "at most";
        case figure_worth::unsure:
            return "unsure";
        case figure_worth::exact:
            break;
    }
    return "exact";
}

static json_record figure_record(const space_figure& figure) {
    return {{"extents", json_number(figure.extents)}, {"worth", worth_word(figure.worth)}};
}

static json_record known_number(bool known, uint64_t number) {
    return known ? json_number(number) : json_record();
}

static json_record map_record(const volume_space& space, const map_space& map) {
    json_record record = {
        {"record", "map"}, {"volume", space.root}, {"lun", map.name}, {"kind", map.kind}};
    add_file(&record, map.file);
    record["extent_size"] = known_number(space.extent_size != 0, space.extent_size);
    record["total"] = known_number(map.size_known, map.entries);
    const struct {
        const char* key;
        const space_figure& figure;
    } figures[] = {{"mapped", map.mapped}, {"exclusive", map.exclusive}, {"shared", map.shared}};
    for (const auto& one : figures) {
        record[one.key] = map.known ? figure_record(one.figure) : json_record();
    }
    record["past_end"] = known_number(map.known, map.past_end);
    record["to_delete"] = map.in_set;
    record["complete"] = map.complete;
    return record;
}

static json_record volume_record(const volume_space& space, bool asked) {
    json_record record = {{"record", "volume"}, {"volume", space.root}};
    record["extent_size"] = known_number(space.extent_size != 0, space.extent_size);
    record["in_use"] = known_number(space.table_known, space.in_use);
    record["free"] = known_number(space.free_known, space.free);
    record["in_one_map"] = json_number(space.in_one_map);
    record["in_several"] = json_number(space.in_several);
    record["in_no_map"] = known_number(space.table_known, space.in_no_map);
    record["mapped_and_free"] = known_number(space.table_known, space.mapped_free);
    record["data_bytes"] = std::to_string(space.data_bytes);
    if (asked) {
        record["freed"] = figure_record(space.freed);
    }
    record["adds_up"] = space.adds_up;
    record["complete"] = space.complete;
    return record;
}

static json_record summary_of(const space_report& report) {
    const ctl_exit status = exit_of(report);
    json_record record = {{"record", "summary"},
                          {"verdict", status == EXIT_CLEAN ? "exact" : "incomplete"},
                          {"exit", static_cast<int>(status)},
                          {"complete", status == EXIT_CLEAN}};
    record["doubts"] = report.doubts;
    record["notes"] = report.notes;
    record["seconds"] = report.seconds;
    return record;
}

bool print_space_json(FILE* out, const space_report& report, bool quiet) {
    if (!put_record(out, opening_record("space", report.opening))) {
        return false;
    }
    for (const volume_space& space : report.volumes) {
        for (const map_space& map : space.maps) {
            if (!quiet && !put_record(out, map_record(space, map))) {
                return false;
            }
        }
        if (!put_record(out, volume_record(space, !report.to_delete.empty()))) {
            return false;
        }
    }
    return put_record(out, summary_of(report)) && fflush(out) == 0;
}
