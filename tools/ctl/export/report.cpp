#include "ctl/export/report.h"

#include <nlohmann/json.hpp>

#include "ctl/check/place_words.h"
#include "ctl/export/source.h"
#include "ctl/records.h"
#include "ctl/text/escape.h"
#include "ctl/text/paragraph.h"

static constexpr size_t RANGES_SHOWN = 20;

static bool was_exported(const export_report& report) {
    return !report.to.empty();
}

static std::string row(const char* label, const std::string& words) {
    std::string line = std::string("    ") + label;
    line.resize(24, ' ');
    return line + words + "\n";
}

static std::string bytes_words(uint64_t bytes) {
    return size_words(bytes) + (bytes < 1024 ? "" : " (" + std::to_string(bytes) + " bytes)");
}

static std::string opening(const export_report& report) {
    std::string words = shown(report.map->file->name) + " of " + shown(report.volume->files->root) +
                        ", " + bytes_words(report.lun_bytes);
    if (report.length != report.lun_bytes) {
        words += ", of them " + bytes_words(report.length) + " from byte " +
                 std::to_string(report.offset) + " on";
    }
    words += report.mode == check_mode::as_if_replayed
                 ? ". Read as it will be after the replay of the journal."
                 : ".";
    return paragraph("", words);
}

static std::string sizes(const export_report& report) {
    const export_totals& totals = report.totals;
    std::string text = row("data", bytes_words(totals.of(lun_stretch_kind::data)));
    text += row("holes", bytes_words(totals.holes()));
    if (totals.of(lun_stretch_kind::past_end) > 0) {
        text += row("  of them past", bytes_words(totals.of(lun_stretch_kind::past_end)) +
                                          " past the end of their data file: never");
        text += row("", "written, or the file was cut");
    }
    if (!totals.missing.empty()) {
        text += row("missing", bytes_words(totals.missing_bytes()));
    }
    if (was_exported(report)) {
        text += row("file", shown(report.to));
    }
    if (!report.map_file.empty()) {
        text += row("mapfile", shown(report.map_file));
    }
    return text;
}

// Positions are those of the LUN.
static std::string missing_list(const export_report& report) {
    const std::vector<missing_range>& missing = report.totals.missing;
    std::string text;
    for (size_t i = 0; i < missing.size() && i < RANGES_SHOWN; i++) {
        const uint64_t begin = report.offset + missing[i].begin;
        text += paragraph("    ", "bytes " + std::to_string(begin) + " to " +
                                      std::to_string(begin + missing[i].bytes - 1) + " (" +
                                      size_words(missing[i].bytes) + " at " + size_words(begin) +
                                      "): " + why_missing(missing[i].why));
    }
    if (missing.size() > RANGES_SHOWN) {
        text += "    and " + count_words(missing.size() - RANGES_SHOWN, "more range") + "\n";
    }
    return text.empty() ? "" : "Missing, in bytes of the LUN:\n" + text;
}

static std::string verdict_words(const export_report& report) {
    if (!was_exported(report)) {
        return "Nothing was exported: a part of the LUN cannot be read. With --missing zero the "
               "rest is exported, with zeros in its place. Exit status " +
               std::to_string(report.status) + ".";
    }
    return report.status == EXIT_CLEAN
               ? "Exported."
               : "Exported, with zeros where bytes are missing. Exit status " +
                     std::to_string(report.status) + ".";
}

bool print_export_text(FILE* out, const export_report& report, bool quiet) {
    std::string text;
    if (!quiet) {
        text = opening(report) + sizes(report) + missing_list(report);
    }
    text += paragraph("", verdict_words(report));
    return fwrite(text.data(), 1, text.size(), out) == text.size() && fflush(out) == 0;
}

static json_record range_record(const export_report& report, const missing_range& range) {
    static constexpr const char* REASONS[] = {"",        "",        "",        "",      "bad-node",
                                              "bad-row", "bad-lpa", "no-file", "unread"};
    static_assert(sizeof REASONS / sizeof REASONS[0] == LUN_STRETCH_KINDS);
    return {{"record", "missing"},
            {"byte", std::to_string(report.offset + range.begin)},
            {"bytes", std::to_string(range.bytes)},
            {"why", REASONS[static_cast<size_t>(range.why)]}};
}

static json_record export_record(const export_report& report) {
    const export_totals& totals = report.totals;
    json_record record = {{"record", "export"},
                          {"lun", report.map->file->name},
                          {"volume", report.volume->files->root}};
    add_file(&record, report.map->file->below);
    record["mode"] = report.mode == check_mode::as_if_replayed ? "as-if-replayed"
                     : report.mode == check_mode::raw          ? "raw"
                                                               : "as-found";
    record["lun_bytes"] = std::to_string(report.lun_bytes);
    record["byte"] = std::to_string(report.offset);
    record["bytes"] = std::to_string(report.length);
    record["data"] = std::to_string(totals.of(lun_stretch_kind::data));
    record["unmapped"] = std::to_string(totals.of(lun_stretch_kind::unmapped));
    record["unwritten"] = std::to_string(totals.of(lun_stretch_kind::unwritten));
    record["past_end"] = std::to_string(totals.of(lun_stretch_kind::past_end));
    record["missing"] = std::to_string(totals.missing_bytes());
    record["to"] = was_exported(report) ? json_record(report.to) : json_record();
    record["mapfile"] = report.map_file.empty() ? json_record() : json_record(report.map_file);
    record["warnings"] = report.warnings;
    return record;
}

bool print_export_json(FILE* out, const export_report& report, bool quiet) {
    bool put = put_record(out, start_record("export"));
    for (size_t i = 0; put && !quiet && i < report.totals.missing.size(); i++) {
        put = put_record(out, range_record(report, report.totals.missing[i]));
    }
    put = put && (quiet || put_record(out, export_record(report)));
    const char* verdict = report.status == EXIT_CLEAN ? "exported"
                          : was_exported(report)      ? "partial"
                                                      : "damage";
    return put &&
           put_record(out, {{"record", "summary"},
                            {"verdict", verdict},
                            {"exit", static_cast<int>(report.status)},
                            {"complete", report.status == EXIT_CLEAN},
                            {"seconds", report.seconds}}) &&
           fflush(out) == 0;
}
