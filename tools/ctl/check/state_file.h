// The state file: what the last full check came to, for whoever asks later. One JSON document; its
// last member is the CRC-32C of all bytes before it, so a byte that was changed or cut off is
// noticed. Every format number keeps the first member, and the last one. Below: check.h.
// Above: the commands check and health.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "ctl/check/check.h"
#include "view/server_files.h"

constexpr uint64_t STATE_FORMAT = 1;
constexpr size_t STATE_HISTORY_MAX = 30;             // checks
constexpr size_t STATE_SIZE_MAX = size_t{16} << 20;  // bytes
constexpr std::string_view STATE_BEGIN = "{\"file\":\"tarnctl state\",\"format\":";

// Whose state it is. Names are as shown() gives them.
struct machine_identity {
    std::string server;   // host name
    std::string machine;  // CRC-32C of the machine's own id, hexadecimal; empty: it has none
    bool operator==(const machine_identity&) const = default;
};
machine_identity this_machine();

struct state_moment {
    uint64_t completed;  // seconds since 1970, UTC
    std::vector<volume_figures> volumes;
};

struct state_record {
    std::string tool;
    machine_identity machine;
    std::string journal;  // status word; empty: not known, or no journal
    std::string verdict;
    int exit = 0;
    bool complete = false;
    // Findings, consequences included: none is 0 while the verdict follows from it.
    std::map<std::string, uint64_t>
        severities;  // "urgent", "damage", "count", "note", "unreadable"
    std::map<std::string, uint64_t> codes;
    state_moment last;                  // the check itself
    std::vector<state_moment> history;  // the checks before it, oldest first
};

enum class state_kind {
    known,
    missing,
    unreadable,   // cannot be opened or read, or is no regular file
    not_a_state,  // something else
    damaged,      // a state file, but cut or changed
    newer,        // of a newer program
    foreign,      // of another server
};

struct state_reading {
    state_kind kind;
    std::string reason;   // why it is not known: a part of a sentence, "it was cut or changed"
    state_record record;  // only of a known one
};

// Never waits: a pipe is no regular file.
state_reading read_state(const std::string& path, const machine_identity& here);

// The record of a report, at a time in seconds since 1970, with each volume's room as it is now.
state_record state_of(const check_report& report, const machine_identity& here, uint64_t now);
// The whole file.
std::string state_text(const state_record& record);

// The word of a status that a check can have; empty: it can have no such status.
std::string verdict_word(int status);

// Replaces the file at `path` with the report's state, and carries the history over. Returns 0, or
// the exit status after a message on standard error: EXIT_REFUSED if what is there must not be
// replaced, EXIT_COULD_NOT_RUN if it cannot be written.
int save_state(const std::string& path, const check_report& report, const server_files& server);
// The same, on this server.
int save_state(const std::string& path, const check_report& report);
