// The catalogue of findings: everything that a check of a server can say. A code never changes its
// meaning. Below: nothing. Above: whoever looks at a server, and whoever explains what was said.
#pragma once

#include <cstddef>

// From harmless to urgent. The exit status of a check follows from the worst one.
enum class severity {
    note,    // worth knowing; nothing is wrong
    count,   // lost space or a wrong count: no data are at risk
    damage,  // something must be repaired
    urgent,  // the service must not write before it is repaired
};

// clang-format off
enum class finding_code {
    H01, H02, H03, H04, H05,
    T01, T02, T03, T04,
    F01, F02, F03, F04, F05, F06, F07, F08, F09, F10, F11, F12,
    M01, M02, M03, M04, M05, M06, M07, M08, M10, M11,
    R01, R02, R03, R04, R05, R06, R07,
    P01, P02, P03,
    D01, D02, D03, D04, D05,
    J01, J02, J03, J04, J05, J06, J08,
    S01, S02, S04, S05, S06, S07, S08, S09,
    X01,
};
// clang-format on

// What is known of a code whatever server it comes up on. The severity is the usual one: a finding
// carries its own.
struct finding_row {
    finding_code code;
    const char* name;  // "R01"
    const char* slug;  // the same as a word of few letters and hyphens
    severity level;
    const char* sentence;  // what is wrong, after the place: "mapped to extents that ..."
    const char* risk;      // what may happen to data, one sentence
    const char* next;      // the command to run next, with VOLUME, MAP and LUN to be replaced
};

// In the order of finding_code.
extern const finding_row FINDING_ROWS[];
extern const size_t FINDING_ROW_COUNT;

const finding_row* finding_row_of(finding_code code);
const finding_row* finding_row_named(const char* name);  // null: no such code
const char* severity_word(severity level);               // "urgent", "damage", "count", "note"
