#include <cctype>
#include <string_view>

#include "ctl/explain/answers.h"
#include "ctl/text/paragraph.h"
#include "print.h"

static void print_field(FILE* out, const char* label, std::string_view words) {
    char head[16];
    snprintf(head, sizeof head, "  %-8s", label);
    fputs(paragraph(head, words).c_str(), out);
}

// The words of a field, which begin with a small letter in the table.
static std::string sentence(const char* words) {
    std::string text = words;
    text[0] = static_cast<char>(toupper(static_cast<unsigned char>(text[0])));
    return text;
}

static void print_words(FILE* out, const message_row& row) {
    print_field(out, "Means:", row.means);
    print_field(out, "Risk:", sentence(row.risk_words));
    print_field(out, "Normal:", sentence(row.normal_words));
    print_field(out, "Next:", row.next);
}

namespace {

class text_answers : public answer_printer {
public:
    explicit text_answers(FILE* out) : out_(out) {}
    void start() override {}
    void catalogue(std::span<const finding_row> rows) override;
    void code(const finding_row& row) override;
    void message(const message_answer& answer) override;
    void unknown(std::string_view text, std::span<const message_row* const> nearest) override;
    void log(const log_report& report) override;
    bool end(int /*exit_status*/) override { return fflush(out_) == 0 && ferror(out_) == 0; }

private:
    void rest_of_log(const message_answer& answer);
    void print_line(const char* before, std::string_view shown) {
        fprintf(out_, "%s%.*s\n", before, static_cast<int>(shown.size()), shown.data());
    }

    FILE* out_;
    bool in_rest_ = false;
};

}  // namespace

void text_answers::catalogue(std::span<const finding_row> rows) {
    for (const finding_row& row : rows) {
        fprintf(out_, "%s  %-6s  %s\n", row.name, severity_word(row.level), row.sentence);
    }
}

void text_answers::code(const finding_row& row) {
    fprintf(out_, "%s, %s, %s\n", row.name, row.slug, severity_word(row.level));
    print_field(out_, "Means:", row.sentence);
    print_field(out_, "Risk:", row.risk);
    if (!std::string_view(row.next).starts_with("tarnctl explain")) {  // that is what was just done
        print_field(out_, "Next:", row.next);
    }
}

// The other messages of a log, one a line.
void text_answers::rest_of_log(const message_answer& answer) {
    if (!in_rest_) {
        fputs("The other messages, each with its number of lines and its first line:\n", out_);
        in_rest_ = true;
    }
    fprintf(out_, "%9llu  line %llu: %s%s\n", ull(answer.count), ull(answer.line),
            answer.row->format,
            answer.role == answer_role::harmless ? "  (also occurs where nothing is wrong)" : "");
}

void text_answers::message(const message_answer& answer) {
    switch (answer.role) {
        case answer_role::error:
        case answer_role::harmless:
            rest_of_log(answer);
            return;
        case answer_role::cause:
            fprintf(out_, "The first error, line %llu of the log, is the cause:\n",
                    ull(answer.line));
            break;
        case answer_role::quoted:
            fputs("It quotes the first failure:\n", out_);
            break;
        case answer_role::asked:
            break;
    }
    print_line("", answer.shown);
    print_words(out_, *answer.row);
}

void text_answers::unknown(std::string_view text, std::span<const message_row* const> nearest) {
    print_line("Unknown: ", text);
    fputs("The nearest messages are:\n", out_);
    for (const message_row* row : nearest) {
        fprintf(out_, "  %s\n", row->format);
    }
}

void text_answers::log(const log_report& report) {
    if (cause_of(report) == nullptr && !report.messages.empty()) {
        fputs("No line of this log reports a problem by itself.\n", out_);
    }
    if (report.unknown != 0) {
        fprintf(out_, "Lines of tarn that are not known: %llu, the first in line %llu: %s\n",
                ull(report.unknown), ull(report.first_unknown), report.first_unknown_text.c_str());
    }
    if (report.runs_with_errors > 1) {
        fprintf(out_,
                "Errors come from %llu runs. For the last one alone: journalctl _PID=%s | tarnctl "
                "explain -\n",
                ull(report.runs_with_errors), report.last_run.c_str());
    }
    fprintf(out_, "Lines: %llu, of other programs: %llu\n", ull(report.lines), ull(report.foreign));
}

std::unique_ptr<answer_printer> text_printer(FILE* out) {
    return std::make_unique<text_answers>(out);
}
