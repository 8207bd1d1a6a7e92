// What `tarnctl punch` found out, and the ways to print it. Below: gate.h, free_ranges.h.
// Above: punch.cpp.
#pragma once

#include <cstdio>

#include "ctl/check/check.h"
#include "ctl/punch/free_ranges.h"
#include "ctl/punch/gate.h"

struct punch_volume {
    std::string root;
    uint64_t extent_size = 0;  // bytes
    free_space space;
};

struct punch_report {
    check_report opening;                 // server, journal, mode
    std::vector<punch_refusal> refusals;  // one is enough, and there are no volumes
    std::vector<punch_volume> volumes;
    double seconds = 0;
};

// The command that punches the range.
std::string punch_line(const punch_volume& volume, const free_range& range);

// False: not everything could be written, errno says why. A refusal as text is printed on `err`.
bool print_punch_text(FILE* out, FILE* err, const punch_report& report, bool quiet);
bool print_punch_json(FILE* out, const punch_report& report, bool quiet);
