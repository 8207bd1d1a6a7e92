// What `tarnctl check` has to find after each damage of tarn-lab, worked out from the line that
// says what was damaged: codes, places, and what may follow from it. Below: check_run.h.
// Above: the tests of damages.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "ctl/support/check_run.h"

// A finding that has to come.
struct wanted_finding {
    std::string codes;       // one of them, separated by blanks
    std::string file;        // below the volume
    std::string place = "";  // what `at` counts; empty: any place
    uint64_t at = 0;
    std::string was = "";    // empty: anything
    std::string owner = "";  // a map that has to be among the owners; empty: any
    std::string ought = "";
};

struct damage_case;
using wanted_list = std::vector<wanted_finding>;

// A damage that was made, and its traces.
struct damage_done {
    std::string kind;
    std::string line;    // that says what was damaged
    std::string sample;  // directory
    unsigned volume = 1;
};

struct damage_row {
    const char* kind;
    wanted_list (*wanted)(const damage_done& done);
    const char* roots;         // further codes that need no cause
    const char* consequences;  // codes that need one
    const char* exits;         // statuses, one of which has to come
};

const std::vector<damage_row>& damage_rows();

// "", or what is wrong with the findings. `notes`: codes that the sample has without any damage.
// Several damages are judged together.
std::string judge(const std::vector<damage_done>& done, const check_run& run,
                  const std::set<std::string>& notes);

// Two damages on one volume: the second may lie behind the first.
std::string judge_mixed(const std::vector<damage_done>& done, const check_run& run,
                        const std::set<std::string>& notes);
