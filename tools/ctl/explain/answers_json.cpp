#include <nlohmann/json.hpp>

#include "ctl/check/check.h"
#include "ctl/explain/answers.h"
#include "ctl/json_line.h"

static constexpr int SCHEMA = 1;  // old fields never change their meaning within it

static const char* role_word(answer_role role) {
    static constexpr const char* words[] = {"asked", "quoted", "cause", "error", "harmless"};
    return words[static_cast<size_t>(role)];
}

static json_record json_of(const finding_row& row) {
    return {{"record", "code"},      {"code", row.name},
            {"slug", row.slug},      {"severity", severity_word(row.level)},
            {"means", row.sentence}, {"risk", row.risk},
            {"next", row.next}};
}

namespace {

class json_answers : public answer_printer {
public:
    explicit json_answers(FILE* out) : out_(out) {}
    void start() override;
    void catalogue(std::span<const finding_row> rows) override;
    void code(const finding_row& row) override { print(json_of(row)); }
    void message(const message_answer& answer) override;
    void unknown(std::string_view text, std::span<const message_row* const> nearest) override;
    void log(const log_report& report) override;
    bool end(int exit_status) override;

private:
    void print(const json_record& record) { fputs(json_line(record).c_str(), out_); }

    FILE* out_;
};

}  // namespace

void json_answers::start() {
    print({{"record", "start"},
           {"schema", SCHEMA},
           {"tool", "tarnctl " TARN_VERSION},
           {"command", "explain"}});
}

void json_answers::catalogue(std::span<const finding_row> rows) {
    for (const finding_row& row : rows) {
        code(row);
    }
}

void json_answers::message(const message_answer& answer) {
    const message_row& row = *answer.row;
    json_record record = {{"record", "message"},
                          {"role", role_word(answer.role)},
                          {"text", answer.shown},
                          {"message", row.format},
                          {"kind", message_kind_word(row.kind)},
                          {"at_risk", message_risk_word(row.risk)},
                          {"normal", row.normal},
                          {"means", row.means},
                          {"risk", row.risk_words},
                          {"normal_when", row.normal_words},
                          {"next", row.next}};
    if (answer.line != 0) {
        record["line"] = answer.line;
        record["count"] = answer.count;
    }
    print(record);
}

void json_answers::unknown(std::string_view text, std::span<const message_row* const> nearest) {
    json_record record = {{"record", "unknown"}, {"text", text}, {"nearest", json_record::array()}};
    for (const message_row* row : nearest) {
        record["nearest"].push_back(row->format);
    }
    print(record);
}

void json_answers::log(const log_report& report) {
    json_record record = {{"record", "log"},
                          {"lines", report.lines},
                          {"of_other_programs", report.foreign},
                          {"unknown", report.unknown},
                          {"runs_with_errors", report.runs_with_errors}};
    if (report.unknown != 0) {
        record["first_unknown"] = {{"line", report.first_unknown},
                                   {"text", report.first_unknown_text}};
    }
    print(record);
}

bool json_answers::end(int exit_status) {
    const bool read = exit_status != EXIT_COULD_NOT_RUN;
    print({{"record", "summary"},
           {"verdict", exit_status == EXIT_CLEAN ? "explained"
                       : read                    ? "unknown"
                                                 : "unread"},
           {"exit", exit_status},
           {"complete", read}});
    return fflush(out_) == 0 && ferror(out_) == 0;
}

std::unique_ptr<answer_printer> json_printer(FILE* out) {
    return std::make_unique<json_answers>(out);
}
