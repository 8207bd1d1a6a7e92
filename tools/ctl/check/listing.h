// Which findings of a report are listed, and what the others are counted under. Both printers ask
// here. Below: check.h.
#pragma once

#include <map>

#include "ctl/check/check.h"

constexpr uint64_t LISTED_OF_A_CODE = 100;

struct listed_finding {
    size_t index;  // in the report
    // Places that follow from it, by code; those that follow from its consequences included.
    std::map<finding_code, uint64_t> explains;
    bool explains_urgent = false;  // one of these findings is urgent
    uint64_t left_out = 0;         // places of the same code after the last listed one
};

// Consequences and what exceeds LISTED_OF_A_CODE are left out, unless `all`. So is, always, the
// rest of a code that was not kept as runs. Of a code that is only noted at most `notes` are
// listed.
std::vector<listed_finding> listing_of(const check_report& report, bool all,
                                       uint64_t notes = LISTED_OF_A_CODE);

// Places that were counted, but not kept as runs.
bool is_rest(const finding& of);

struct finding_totals {
    // Consequences left out. A rest counts place by place.
    std::map<finding_code, uint64_t> codes;
    uint64_t levels[4] = {};    // the same, by severity
    uint64_t unreadable = 0;    // X01, which is in no level
    uint64_t consequences = 0;  // places
};
finding_totals totals_of(const check_report& report);
