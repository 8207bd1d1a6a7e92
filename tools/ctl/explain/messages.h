// Every message that the program can log or print, with its words from docs/messages.md. The table
// is made when the program is built: no file is read at run time. Above: whoever recognises a line.
#pragma once

#include <cstdint>
#include <span>

enum class message_kind {
    log,     // a line of the system log
    output,  // a line on standard output
    reason,  // only quoted, by a line that names the first failure of a run
};

enum class message_risk { none, possible, yes };  // whether data of the LUNs are at risk

struct message_row {
    const char* format;     // as for printf, without what every line of the log begins with
    message_kind kind;      // the first that applies
    const char* functions;  // that the log names in front, separated by blanks; "": not known
    message_risk risk;
    bool normal;           // it occurs on volumes where nothing is wrong
    const char* harmless;  // lines of formats; "" if `normal` holds for every form of the message
    const char* means;
    const char* risk_words;
    const char* normal_words;
    const char* next;
};

// In the order of their formats.
std::span<const message_row> all_messages();

const char* message_kind_word(message_kind kind);  // "log", "output", "reason"
const char* message_risk_word(message_risk risk);  // "none", "possible", "yes"
