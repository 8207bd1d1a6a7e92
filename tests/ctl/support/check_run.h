// One run of `tarnctl check --json --all` on a sample, and what it printed, as values.
// Below: shell.h. Above: the tests of the whole check.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

struct seen_owner {
    std::string file;
    std::vector<std::pair<uint64_t, uint64_t>> ranges;  // lea, count
};

struct seen_finding {
    int number;
    std::string code;
    std::string severity;
    std::string volume;  // root; empty: the server
    std::string file;    // below the root
    std::string place;   // "lpa", "group", ...; empty: none
    uint64_t first = 0;
    uint64_t count = 0;
    std::string was;
    std::string ought;
    std::vector<seen_owner> owners;
    int because = 0;  // number of the finding that explains this one; 0: none

    [[nodiscard]] bool covers(const std::string& kind, uint64_t at) const {
        return place == kind && at >= first && at - first < count;
    }
    [[nodiscard]] bool names(const std::string& map) const;                // as an owner
    [[nodiscard]] bool names(const std::string& map, uint64_t lea) const;  // with that lea
};

struct check_run {
    int status = -1;  // exit status; -1, or more than 128, if a signal or the time limit ended it
    std::string out;
    std::string err;
    std::string mode;
    std::string verdict;
    bool complete = false;
    std::vector<std::string> left_out;
    std::vector<seen_finding> findings;

    [[nodiscard]] std::string codes() const;  // "R01 M03<M01": what explains a finding after '<'
    [[nodiscard]] bool has(const std::string& code) const;
    [[nodiscard]] bool has_only_notes() const;
};

// Runs `command` with a time limit; standard error stays apart.
check_run run_limited(const std::string& command);
// The check of the sample with more options. Fails the test if what is printed is not JSON Lines
// from the first record to the summary, or the summary has another exit status than the program.
check_run check_sample(const std::string& sample, const std::string& more = "");
// The command line of that, without a time limit.
std::string check_command(const std::string& sample, const std::string& more = "");

// Whether the status is one that the program documents for a check that ran.
bool is_verdict(int status);
// "" or the first line of JSON in `lines` that the published schema refuses.
std::string schema_problem(const std::string& lines);
