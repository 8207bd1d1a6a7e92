// How answers are written: as text for people, or as JSON Lines. Above: explain.cpp.
#pragma once

#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "ctl/explain/messages.h"
#include "ctl/explain/whole_log.h"
#include "view/findings.h"

enum class answer_role {
    asked,     // the line that was given
    quoted,    // the failure that the line before quotes
    cause,     // the first error of a log
    error,     // a later error of it
    harmless,  // a line of it that also occurs where nothing is wrong
};

struct message_answer {
    answer_role role;
    const message_row* row;
    std::string_view shown;  // the line
    uint64_t line = 0;       // of a log, from 1
    uint64_t count = 1;      // lines of a log with this message
};

class answer_printer {
public:
    virtual ~answer_printer() = default;
    virtual void start() = 0;
    virtual void catalogue(std::span<const finding_row> rows) = 0;
    virtual void code(const finding_row& row) = 0;
    virtual void message(const message_answer& answer) = 0;
    virtual void unknown(std::string_view text, std::span<const message_row* const> nearest) = 0;
    virtual void log(const log_report& report) = 0;  // its numbers, after its messages
    virtual bool end(int exit_status) = 0;           // false: not everything could be written
};

std::unique_ptr<answer_printer> text_printer(FILE* out);
std::unique_ptr<answer_printer> json_printer(FILE* out);
