// One line of a log or a terminal, as somebody pasted it: the message alone, without what the
// system log and the program put in front. Above: recognise.h, whole_log.h.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The longest line that is looked at; the program makes none as long.
constexpr size_t LOG_LINE_MAX = 16384;

struct log_line {
    std::string text;           // the message, one blank between two words
    std::string function;       // that the program names in front; empty: none
    std::string process;        // number of the process that the system log names; empty: none
    bool from_program = false;  // marked as a line of the program; else it may be anybody's
};

// Any bytes are allowed. The text is valid UTF-8 and holds no control character: it can be shown.
log_line parse_log_line(std::string_view line);

// What `parse_log_line` shows of a line, with everything in front of the message.
std::string clean_line(std::string_view line);
