// The fields are those of docs/schema/tarnctl-1.json: a new one may come, an old one never changes
// its meaning.
#include <nlohmann/json.hpp>

#include "ctl/check/listing.h"
#include "ctl/check/place_words.h"
#include "ctl/check/print.h"
#include "ctl/records.h"

constexpr size_t RANGES_LISTED = 100;  // of an owner, unless everything is listed

static const char* mode_word(check_mode mode) {
    switch (mode) {
        case check_mode::as_if_replayed:
            return "as-if-replayed";
        case check_mode::raw:
            return "raw";
        case check_mode::as_found:
            break;
    }
    return "as-found";
}

json_record opening_record(const char* command, const check_report& report) {
    json_record record = start_record(command);
    record["server"] = report.server;
    record["volumes"] = report.volumes;
    record["journal"] = nullptr;
    record["mode"] = mode_word(report.mode);
    if (!report.journal_path.empty()) {
        record["journal"] = {{"path", report.journal_path},
                             {"status", nullptr},
                             {"last_id", json_number(report.journal_last_id)}};
        if (!report.journal_status.empty()) {
            record["journal"]["status"] = report.journal_status;
        }
    }
    return record;
}

static const char* place_key(place_kind place) {
    static constexpr const char* KEYS[] = {"",     "lpa", "group",         "block",
                                           "node", "lea", "journal_block", "byte"};
    static_assert(std::size(KEYS) == static_cast<size_t>(place_kind::byte) + 1);
    return KEYS[static_cast<size_t>(place)];
}

// Byte positions are strings, however small.
static void add_place(json_record* record, const finding& of) {
    if (of.place == place_kind::byte) {
        (*record)["byte"] = {{"first", std::to_string(of.first)},
                             {"count", std::to_string(of.count)}};
    } else if (of.place != place_kind::none) {
        (*record)[place_key(of.place)] = {{"first", json_number(of.first)},
                                          {"count", json_number(of.count)}};
    }
}

static json_record range_record(const lea_range& range, uint64_t extent_size) {
    json_record record = {{"lea", json_number(range.lea)}, {"count", json_number(range.count)}};
    if (extent_size != 0) {
        record["byte"] = std::to_string(bytes_of(range.lea, extent_size));
        record["bytes"] = std::to_string(bytes_of(range.count, extent_size));
    }
    return record;
}

static json_record owner_record(const finding_owner& owner, uint64_t extent_size, bool all) {
    json_record record = {{"lun", owner.lun}, {"kind", owner.kind}};
    add_file(&record, owner.file);
    const size_t listed = all ? owner.ranges.size() : std::min(owner.ranges.size(), RANGES_LISTED);
    record["ranges"] = json_record::array();
    for (size_t i = 0; i < listed; i++) {
        record["ranges"].push_back(range_record(owner.ranges[i], extent_size));
    }
    const uint64_t left_out = owner.ranges.size() - listed + owner.ranges_left_out;
    if (left_out > 0) {
        record["ranges_left_out"] = json_number(left_out);
    }
    return record;
}

// Fields that only some findings have.
static void add_particulars(json_record* record, const finding& of, const listed_finding& listed) {
    const struct {
        const char* key;
        const std::string& value;
    } words[] = {{"was", of.was}, {"ought", of.ought}, {"detail", of.detail}};
    for (const auto& word : words) {
        if (!word.value.empty()) {
            (*record)[word.key] = word.value;
        }
    }
    const struct {
        const char* key;
        uint64_t value;
        uint64_t usual;
    } counts[] = {{"places", of.number, of.place == place_kind::none ? 1 : of.count},
                  {"left_out", listed.left_out, 0}};
    for (const auto& count : counts) {
        if (count.value != count.usual) {
            (*record)[count.key] = json_number(count.value);
        }
    }
    for (const auto& [code, places] : listed.explains) {
        (*record)["explains"][finding_row_of(code)->name] = json_number(places);
    }
    if (!of.log.empty()) {
        (*record)["log"] = of.log;
    }
}

json_record finding_record(const finding& of, const listed_finding& listed, bool all) {
    const finding_row* row = finding_row_of(of.code);
    json_record record = {{"record", "finding"},
                          {"number", listed.index + 1},
                          {"code", row->name},
                          {"slug", row->slug},
                          {"severity", severity_word(of.level)}};
    if (!of.volume.empty()) {
        record["volume"] = of.volume;
    }
    if (!of.file.empty()) {
        add_file(&record, of.file);
    }
    add_place(&record, of);
    record["owners"] = json_record::array();
    for (const finding_owner& owner : of.owners) {
        record["owners"].push_back(owner_record(owner, of.extent_size, all));
    }
    add_particulars(&record, of, listed);
    record["because"] = of.because == NO_CAUSE ? json_record() : json_record(of.because + 1);
    record["sentence"] = row->sentence;
    record["risk"] = row->risk;
    record["next"] = of.next;
    return record;
}

static json_record summary_record(const check_report& report, uint64_t listed) {
    const finding_totals totals = totals_of(report);
    const ctl_exit status = exit_of(report);
    json_record codes = json_record::object();
    bool complete = report.complete;
    for (const auto& [code, count] : totals.codes) {
        codes[finding_row_of(code)->name] = json_number(count);
        complete = complete && code != finding_code::X01;
    }
    return {{"record", "summary"},
            {"verdict", verdict_of(report)},
            {"exit", static_cast<int>(status)},
            {"complete", complete},
            {"codes", codes},
            {"consequences", json_number(totals.consequences)},
            {"listed", json_number(listed)},
            {"left_out", report.left_out},
            {"seconds", report.seconds}};
}

bool print_check_json(FILE* out, const check_report& report, const print_style& style) {
    if (!put_record(out, opening_record(style.command, report))) {
        return false;
    }
    uint64_t listed_count = 0;
    const std::vector<listed_finding> listing =
        style.quiet ? std::vector<listed_finding>() : listing_of(report, style.all);
    for (const listed_finding& listed : listing) {
        if (!put_record(out, finding_record(report.findings[listed.index], listed, style.all))) {
            return false;
        }
        listed_count++;
    }
    return put_record(out, summary_record(report, listed_count)) && fflush(out) == 0;
}
