// Raw findings as a check meets them: places of one code that touch each other become one run, and
// memory stays bounded however much is damaged. Below: src/view. Above: the steps of a check.
#pragma once

#include <cstdint>
#include <vector>

#include "view/finding.h"

constexpr uint32_t NO_VALUE = ~uint32_t{0};
constexpr uint64_t RUNS_MAX = 100000;  // of a code in a volume; more are only counted

// Neighbouring places of one code.
struct place_run {
    uint64_t first;
    uint64_t count;
    uint32_t was;    // NO_VALUE: none, or not the same in the whole run
    uint32_t ought;  // the same
    int because;     // number of the finding that explains it, or NO_CAUSE
};

struct run_list {
    std::vector<place_run> runs;
    uint64_t places = 0;     // all of them
    uint64_t left_out = 0;   // places that are in no run
    uint64_t explained = 0;  // places with a cause
};

// Adds a place, which need not come in order.
void add_place(run_list* list, const place_run& place);
// Sorts the runs and joins those that touch.
void settle_runs(run_list* list);
