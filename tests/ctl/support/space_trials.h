// One server, which the seed picks, whose space or free extents are counted by tarnctl and by brute
// force, in Python. The tests of the suite try a few seeds, the campaigns many. Below: shell.h.
#pragma once

#include <string>

// What came of it: "right", "no server" if its replay would be refused, or what is wrong.
// `oracle`: "space" or "punch".
std::string try_space(const std::string& oracle, unsigned seed);

// A run of tarnctl on a sample: `words` begin with the command.
struct ctl_run {
    int status;  // exit status
    std::string out;
    std::string err;
};
ctl_run run_ctl(const std::string& sample, const std::string& words);
