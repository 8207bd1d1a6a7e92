#include "store/keep_journal.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

static constexpr size_t TEXT_SIZE = 512;  // a longer reason is cut

struct tally {
    uint64_t count;
    char first[TEXT_SIZE];
};

static tally reasons;   // all of them
static tally failures;  // those that are not damage

static void add(tally* to, const char* text) {
    if (to->count++ == 0) {
        snprintf(to->first, sizeof to->first, "%s", text);
    }
}

void keep_journal(keep_reason kind, const char* format, ...) {
    char text[TEXT_SIZE];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    text[strcspn(text, "\n")] = '\0';
    add(&reasons, text);
    if (kind != keep_reason::damage) {
        add(&failures, text);
    }
}

keep_reasons keep_journal_reasons() {
    return {reasons.count, reasons.first};
}

keep_reasons keep_journal_failures() {
    return {failures.count, failures.first};
}

void keep_journal_forget() {
    reasons = {};
    failures = {};
}
