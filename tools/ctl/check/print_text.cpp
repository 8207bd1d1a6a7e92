#include "ctl/check/listing.h"
#include "ctl/check/place_words.h"
#include "ctl/check/print.h"
#include "ctl/text/escape.h"
#include "ctl/text/paragraph.h"

constexpr size_t INDENT = 12;  // columns before the words of a finding
constexpr size_t LOG_LINES_SHOWN = 3;
constexpr uint64_t NOTES_SHOWN = 5;  // of a code

static bool put(FILE* out, const std::string& text) {
    return fwrite(text.data(), 1, text.size(), out) == text.size();
}

static const char* label_of(const finding& of) {
    static constexpr const char* LABELS[] = {"NOTE", "COUNT", "DAMAGE", "URGENT"};
    return of.code == finding_code::X01 ? "UNREAD" : LABELS[static_cast<size_t>(of.level)];
}

static bool is_note(const finding& of) {
    return of.level == severity::note && of.code != finding_code::X01;
}

static const char* color_of(const finding& of) {
    static constexpr const char* COLORS[] = {"36", "33", "31", "1;31"};  // cyan, yellow, red
    return of.code == finding_code::X01 ? "35" : COLORS[static_cast<size_t>(of.level)];
}

// "URGENT R01  ", INDENT columns.
static std::string head_of(const finding& of) {
    std::string head = label_of(of);
    head.resize(7, ' ');
    head += finding_row_of(of.code)->name;
    head.resize(INDENT, ' ');
    return head;
}

static void add_words(std::string* text, const std::string& words) {
    if (!words.empty()) {
        *text += (text->empty() ? "" : " ") + words;
    }
}

// References to an extent: who holds what matters more than which of the two is wrong.
static bool is_about_references(finding_code code) {
    return code == finding_code::R02 || code == finding_code::R03 || code == finding_code::R04;
}

static std::string values_words(const finding& of) {
    if (is_about_references(of.code) && !of.was.empty() && !of.ought.empty()) {
        return "Each is counted " + of.was + (of.was == "1" ? " time" : " times") +
               " in the table, and named " + of.ought + (of.ought == "1" ? " time" : " times") +
               " in the maps.";
    }
    if (of.was.empty() || of.ought.empty()) {
        return of.was.empty() ? "" : "Found " + shown(of.was) + ".";
    }
    return "Found " + shown(of.was) + ", should be " + shown(of.ought) + ".";
}

// "Explains 12 more places (R01 10, R04 2)."
static std::string consequence_words(const listed_finding& listed) {
    std::string codes;
    uint64_t places = 0;
    for (const auto& [code, count] : listed.explains) {
        codes += (codes.empty() ? "" : ", ") + std::string(finding_row_of(code)->name) + " " +
                 std::to_string(count);
        places += count;
    }
    if (places == 0) {
        return "";
    }
    return "Explains " + count_words(places, "more place") + " (" + codes + ")" +
           (listed.explains_urgent ? ", some of them urgent." : ".");
}

static std::string cause_words(const check_report& report, const finding& of) {
    if (of.because < 0 || static_cast<size_t>(of.because) >= report.findings.size()) {
        return "";
    }
    const finding& cause = report.findings[static_cast<size_t>(of.because)];
    return std::string("Follows from ") + finding_row_of(cause.code)->name + " above.";
}

static bool stands_for_more(const finding& of) {
    return of.number > (of.place == place_kind::none ? 1 : of.count);
}

// Everything that is no cause for alarm: where exactly, which values, what belongs together.
static std::string facts_of(const check_report& report, const finding& of,
                            const listed_finding& listed) {
    std::string facts;
    add_words(&facts, place_sentence(of));
    add_words(&facts, values_words(of));
    add_words(&facts, stands_for_more(of) ? count_words(of.number, "place") + " in all." : "");
    add_words(&facts, consequence_words(listed));
    add_words(&facts, cause_words(report, of));
    return facts;
}

static std::string log_lines_of(const finding& of) {
    std::string lines;
    for (size_t i = 0; i < of.log.size() && i < LOG_LINES_SHOWN; i++) {
        lines += paragraph(std::string(INDENT, ' ') + "Log: ", shown(of.log[i]));
    }
    if (of.log.size() > LOG_LINES_SHOWN) {
        lines += std::string(INDENT, ' ') +
                 count_words(of.log.size() - LOG_LINES_SHOWN, "more line") + " of the log.\n";
    }
    return lines;
}

static std::string left_out_line(const finding& of, uint64_t left_out, bool all) {
    return std::string(INDENT, ' ') + count_words(left_out, "more place") + " of " +
           finding_row_of(of.code)->name + (all ? ".\n" : ": list more with --all.\n");
}

static void paint_label(std::string* text, const finding& of) {
    const size_t length = std::string_view(label_of(of)).size();
    text->insert(length, "\033[0m");
    text->insert(0, std::string("\033[") + color_of(of) + "m");
}

std::string finding_text(const check_report& report, const listed_finding& listed,
                         const print_style& style) {
    const finding& of = report.findings[listed.index];
    const finding_row* row = finding_row_of(of.code);
    std::string text = paragraph(head_of(of), subject_words(of) + ": " + row->sentence);
    std::string warning = shown(of.detail);
    add_words(&warning, is_note(of) ? "" : row->risk);
    const std::string facts = facts_of(report, of, listed);
    const std::string blank(INDENT, ' ');
    if (!warning.empty()) {
        text += paragraph(blank, warning);
    }
    if (!facts.empty()) {
        text += paragraph(blank, facts);
    }
    text += log_lines_of(of);
    if (!of.next.empty()) {
        append_unbroken(&text, "Next: " + of.next, INDENT);
    }
    if (listed.left_out > 0) {
        text += left_out_line(of, listed.left_out, style.all);
    }
    if (style.color) {
        paint_label(&text, of);
    }
    return text;
}

static std::string journal_words(const check_report& report) {
    if (report.journal_path.empty()) {
        return "no journal";
    }
    std::string words =
        "journal " + (report.journal_status.empty() ? "unreadable" : shown(report.journal_status));
    if (report.journal_last_id != 0) {
        words += ", last transaction " + std::to_string(report.journal_last_id);
    }
    return words;
}

static const char* mode_words(check_mode mode) {
    switch (mode) {
        case check_mode::as_if_replayed:
            return "Shown as it will be after the replay of the journal; nothing was written.";
        case check_mode::raw:
            return "Shown as it is on the disk, without the replay of the journal.";
        case check_mode::as_found:
            break;
    }
    return "";
}

std::string opening_text(const check_report& report) {
    std::string words = shown(report.server) + ":";
    for (const std::string& volume : report.volumes) {
        words += " " + shown(volume) + ",";
    }
    words += report.volumes.empty() ? " no volumes, " : " ";
    words += journal_words(report) + ".";
    add_words(&words, mode_words(report.mode));
    return paragraph("", words) + "\n";
}

static const char* advice_of(ctl_exit status, const print_style& style) {
    switch (status) {
        case EXIT_URGENT:
            return "Urgent: the service must not write. Keep it stopped until this is settled.";
        case EXIT_DAMAGE:
            return "Damage: something must be repaired, and data may be at risk.";
        case EXIT_INCOMPLETE:
            return "Incomplete: no damage was seen, but not everything could be looked at.";
        case EXIT_COUNTS:
            return "Only lost space or wrong counts: no data are at risk.";
        default:
            return style.clean;
    }
}

// "Findings: 1 urgent, 2 counts, and 12 places explained by them."
static std::string totals_words(const finding_totals& totals) {
    const struct {
        uint64_t count;
        const char* word;
        bool is_noun;
    } parts[] = {
        {totals.levels[static_cast<size_t>(severity::urgent)], "urgent", false},
        {totals.levels[static_cast<size_t>(severity::damage)], "damage", false},
        {totals.unreadable, "unreadable", false},
        {totals.levels[static_cast<size_t>(severity::count)], "count", true},
        {totals.levels[static_cast<size_t>(severity::note)], "note", true},
    };
    std::string words;
    for (const auto& part : parts) {
        if (part.count > 0) {
            words += (words.empty() ? "" : ", ") +
                     (part.is_noun ? count_words(part.count, part.word)
                                   : std::to_string(part.count) + " " + part.word);
        }
    }
    if (totals.consequences > 0) {
        words += ", and " + count_words(totals.consequences, "place") + " explained by them";
    }
    return words.empty() ? "" : "Findings: " + words + ".";
}

static std::string verdict_words(const check_report& report, const print_style& style) {
    const ctl_exit status = exit_of(report);
    std::string words = advice_of(status, style);
    add_words(&words, totals_words(totals_of(report)));
    add_words(&words, "Exit status " + std::to_string(status) + ".");
    return words;
}

// Notes stand close together at the end; a blank line sets anything else apart.
static bool put_findings(FILE* out, const check_report& report, const print_style& style) {
    const std::vector<listed_finding> listing = listing_of(report, style.all, NOTES_SHOWN);
    for (size_t i = 0; i < listing.size(); i++) {
        std::string text = finding_text(report, listing[i], style);
        if (i + 1 == listing.size() || !is_note(report.findings[listing[i].index])) {
            text += '\n';
        }
        if (!put(out, text)) {
            return false;
        }
    }
    return true;
}

bool print_check_text(FILE* out, const check_report& report, const print_style& style) {
    if (style.quiet) {
        return put(out, verdict_words(report, style) + "\n") && fflush(out) == 0;
    }
    if (!put(out, opening_text(report)) || !put_findings(out, report, style)) {
        return false;
    }
    for (const std::string& sentence : report.left_out) {
        if (!put(out, paragraph("Not looked at: ", shown(sentence)))) {
            return false;
        }
    }
    return put(out, paragraph("", verdict_words(report, style))) && fflush(out) == 0;
}
