// The reasons to keep the journal: failures and damage after which it may still be needed. Recorded
// and logged where they are found; checked by start-up replay before it deletes the journal, by the
// rebuilds, and by main.
// Below: log.h. Above: everything that reads or writes metadata.
#pragma once

#include <cstdint>

#include "store/log.h"

enum class keep_reason {
    failed_write,  // a write or sync of metadata failed, was short or was not attempted
    unread,        // something could not be read or checked: I/O error, no memory
    damage,        // damage was found and was overwritten, which may hide it
};

// Records a reason. Its text, without a line end, is kept for the first reason of the run. The
// caller logs; log_keep does both.
[[gnu::format(printf, 2, 3)]] void keep_journal(keep_reason kind, const char* format, ...);

// Logs `message` as log_err does, and records it as a reason.
#define log_keep(kind, message, ...)                            \
    do {                                                        \
        log_err(message __VA_OPT__(, ) __VA_ARGS__);            \
        keep_journal(kind, message __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)
// The same under another operation's name.
#define log_keep_as(name, kind, message, ...)                   \
    do {                                                        \
        log_err_as(name, message __VA_OPT__(, ) __VA_ARGS__);   \
        keep_journal(kind, message __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)

// What was recorded so far: the number of reasons, and the text of the first, "" if there is none.
struct keep_reasons {
    uint64_t count;
    const char* first;
};
keep_reasons keep_journal_reasons();
keep_reasons keep_journal_failures();  // only those that are not damage
// Forgets everything: between two tests, and around a replay into memory.
void keep_journal_forget();
