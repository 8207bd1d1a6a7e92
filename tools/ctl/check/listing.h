// Which findings of a report are listed, and what the others are counted under. Both printers ask
// here. Below: check.h.
#pragma once

#include <map>

#include "ctl/check/check.h"

constexpr uint64_t LISTED_OF_A_CODE = 100;

struct listed_finding {
    size_t index;                  // in the report
    uint64_t explains = 0;         // consequences, those of consequences included
    uint64_t explains_urgent = 0;  // of them
    uint64_t left_out = 0;         // findings of the same code after the last listed one
};

// Consequences and what exceeds LISTED_OF_A_CODE are left out, unless `all`.
std::vector<listed_finding> listing_of(const check_report& report, bool all);

struct finding_totals {
    std::map<finding_code, uint64_t> codes;  // consequences left out
    uint64_t levels[4] = {};                 // by severity, consequences left out
    uint64_t unreadable = 0;                 // X01, which is in no level
    uint64_t consequences = 0;
};
finding_totals totals_of(const check_report& report);
