// A whole log: its first error, which is the cause, and how often the other messages occur.
// Below: recognise.h. Above: explain.h.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "ctl/explain/recognise.h"

// A message of the log and how often it occurs.
struct log_tally {
    const message_row* row;
    bool harmless;
    uint64_t count;
    uint64_t first_line;      // from 1
    std::string first_shown;  // that whole line
    std::string first_text;   // its message alone
};

struct log_report {
    uint64_t lines = 0;
    uint64_t foreign = 0;  // lines of other programs
    uint64_t unknown = 0;  // lines of the program that are no message known here
    uint64_t first_unknown = 0;
    std::string first_unknown_text;
    uint64_t runs_with_errors = 0;    // errors of one process in sequence are one run
    std::string last_run;             // process of the last of them
    std::vector<log_tally> messages;  // in the order of their first lines
};

class log_reader {
public:
    explicit log_reader(const message_book& book) : book_(book) {}
    void add_line(std::string_view line);
    [[nodiscard]] const log_report& report() const { return report_; }

private:
    void count(const recognised& found, const log_line& parsed, std::string_view line);
    void note_run(const std::string& process);

    const message_book& book_;
    log_report report_;
};

// Adds every line of `in`. A line longer than LOG_LINE_MAX is cut. False: it cannot be read.
bool read_log(FILE* in, log_reader* reader);

// The first error; null if there is none.
const log_tally* cause_of(const log_report& report);
