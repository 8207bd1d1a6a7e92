// The command line. Below: nothing. The kinds of damage are not known here.
#pragma once

#include <cstdint>
#include <string>

namespace lab {

enum class command { make, verify, expect, damage, run, age, image, maps, help, version };

// The parameters of a sample: the same parameters give the same bytes.
struct parameters {
    uint64_t volumes = 2;
    uint64_t luns = 3;
    uint64_t extents = 3000;
    uint64_t transactions = 200;
    uint64_t data = 2;
    uint64_t seed = 1;
    bool crash = false;
    bool unfinalized = false;
};

// Name, member and bounds of each number. Used for the command line and for lab.conf.
struct parameter_row {
    const char* name;
    uint64_t parameters::*value;
    uint64_t least;
    uint64_t most;
};
constexpr parameter_row PARAMETER_ROWS[] = {
    {"volumes", &parameters::volumes, 1, 64},
    {"luns", &parameters::luns, 1, 10000},
    {"extents", &parameters::extents, 1, 10000000},
    {"transactions", &parameters::transactions, 0, 10000000},
    {"data", &parameters::data, 0, 1000},
    {"seed", &parameters::seed, 0, UINT64_MAX},
};
struct flag_row {
    const char* name;
    bool parameters::*value;
};
constexpr flag_row FLAG_ROWS[] = {
    {"crash", &parameters::crash},
    {"unfinalized", &parameters::unfinalized},
};

struct options {
    command what = command::make;
    std::string directory;
    parameters sample;     // make only
    bool refused = false;  // verify only; excludes `rebuilt`
    bool rebuilt = false;  // verify only
    std::string kind;      // damage only; not checked here
    std::string lun;       // this and the next: image only; not checked here
    std::string file;
    uint64_t volume = 1;           // damage only
    uint64_t seed = 1;             // damage, run and age
    uint64_t seconds = 10;         // run only
    uint64_t rate = 50;            // the same
    uint64_t transactions = 1000;  // age only
    bool clean = false;            // the same
};

// Returns false if the command line is wrong, and prints one line on standard error that says why.
bool parse_options(int argc, char** argv, options* out);
// Parses a decimal number within the row's bounds; rejects any other characters.
bool parse_parameter(const parameter_row& row, const std::string& text, parameters* out);
const char* usage_text();

}  // namespace lab
