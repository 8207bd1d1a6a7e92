#include <algorithm>
#include <array>

#include "ctl/check/place_words.h"
#include "ctl/check/print.h"
#include "ctl/health/print.h"
#include "ctl/text/escape.h"
#include "ctl/text/paragraph.h"

static bool put(FILE* out, const std::string& text) {
    return fwrite(text.data(), 1, text.size(), out) == text.size();
}

constexpr size_t COLUMNS = 5;
using table_row = std::array<std::string, COLUMNS>;

static std::string bytes_words(const std::optional<uint64_t>& bytes) {
    return bytes ? size_words(*bytes) : "unknown";
}

static std::string forecast_words(const forecast& full) {
    constexpr uint64_t FAR = 3650 * DAY;
    if (full.kind != forecast_kind::filling) {
        return full.kind == forecast_kind::unknown ? "unknown" : "not filling up";
    }
    return full.seconds > FAR ? "more than 10 years" : "about " + age_words(full.seconds);
}

static table_row row_of(const volume_health& volume) {
    const volume_figures last = volume.last.value_or(volume_figures());
    return {shown(volume.now.root), bytes_words(bytes_of_extents(last.used, last.extent_size)),
            bytes_words(bytes_of_extents(last.leaked, last.extent_size)),
            bytes_words(volume.now.room), forecast_words(volume.full)};
}

static std::string volumes_table(const health_report& report) {
    std::vector<table_row> rows = {{"volume", "in use", "leaked", "room left", "full in"}};
    for (const volume_health& volume : report.volumes) {
        rows.push_back(row_of(volume));
    }
    std::array<size_t, COLUMNS> widths = {};
    for (const table_row& row : rows) {
        for (size_t i = 0; i < COLUMNS; i++) {
            widths[i] = std::max(widths[i], columns_of(row[i]));
        }
    }
    std::string text;
    for (const table_row& row : rows) {
        for (size_t i = 0; i + 1 < COLUMNS; i++) {
            text += row[i] + std::string(widths[i] - columns_of(row[i]) + 3, ' ');
        }
        text += row[COLUMNS - 1] + "\n";
    }
    return rows.size() == 1 ? "" : text + "\n";
}

static std::string journal_words(const check_report& report) {
    if (report.journal_path.empty() || report.journal_status == "none") {
        return "no journal";
    }
    return "journal " + (report.journal_status.empty() ? "unreadable" : report.journal_status);
}

// "The last full check, 6 days ago, was urgent. It found 1 urgent, 2 notes."
static std::string last_words(const health_report& report) {
    std::string words = last_check_words(report);
    if (report.last.kind != state_kind::known) {
        return words;
    }
    constexpr struct {
        const char* severity;
        bool is_noun;
    } PARTS[] = {{"urgent", false},
                 {"damage", false},
                 {"unreadable", false},
                 {"count", true},
                 {"note", true}};
    std::string counts;
    for (const auto& part : PARTS) {
        const auto found = report.last.record.severities.find(part.severity);
        if (found != report.last.record.severities.end() && found->second > 0) {
            counts += (counts.empty() ? "" : ", ") +
                      (part.is_noun ? count_words(found->second, part.severity)
                                    : std::to_string(found->second) + " " + part.severity);
        }
    }
    return words + (counts.empty() ? "" : " Findings: " + counts + ".");
}

static std::string opening(const health_report& report) {
    std::string words = paragraph(
        "", shown(report.facts.report.server) + ": " + journal_words(report.facts.report) + ".");
    words += paragraph("", last_words(report));
    const std::string last = last_check_words(report);
    for (const std::string& reason : report.unknown) {
        words += reason == last ? "" : paragraph("", reason);
    }
    return words + "\n";
}

static bool put_findings(FILE* out, const health_report& report, const output_style& style) {
    const print_style how = {style.color, false, false};
    for (const listed_finding& listed : listing_of(report.facts.report, false)) {
        if (!put(out, finding_text(report.facts.report, listed, how) + "\n")) {
            return false;
        }
    }
    return true;
}

// Empty if there is nothing to do.
static std::string next_words(const health_report& report) {
    if (report.status == EXIT_CLEAN) {
        return "";
    }
    const bool known_bad = report.last.kind == state_kind::known && report.last.record.exit != 0;
    return std::string("Next: tarnctl check") +
           (report.unknown.empty() || known_bad ? "" : " --state " + shell_word(report.state_file));
}

bool print_health_text(FILE* out, const health_report& report, const output_style& style) {
    std::string verdict = health_advice(report);
    verdict += " Exit status " + std::to_string(report.status) + ".";
    const std::string next = next_words(report);
    if (style.quiet) {
        return put(out, verdict + (next.empty() ? "" : " ") + next + "\n") && fflush(out) == 0;
    }
    verdict = paragraph("", verdict);
    if (!next.empty()) {
        append_unbroken(&verdict, next, 0);
    }
    return put(out, opening(report)) && put(out, volumes_table(report)) &&
           put_findings(out, report, style) && put(out, verdict) && fflush(out) == 0;
}
