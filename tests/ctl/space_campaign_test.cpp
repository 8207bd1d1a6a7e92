// The campaigns of `tarnctl space` and `tarnctl punch`: one server a seed. Run by scripts/prove.
#include <gtest/gtest.h>

#include "campaign/asked.h"
#include "ctl/support/space_trials.h"

static void try_asked(const std::string& oracle) {
    const seed_range seeds = asked_seeds();
    if (seeds.count == 0) {
        GTEST_SKIP() << "run by scripts/prove";
    }
    figures counted;
    for (uint64_t seed = seeds.first; seed < seeds.first + seeds.count; seed++) {
        const std::string found = try_space(oracle, static_cast<unsigned>(seed));
        const bool right = found == "right" || found == "no server";
        counted.count("command|" + oracle + (right ? "|" + found : "|wrong"));
        counted.count(right ? "result|as counted by brute force" : "result|wrong");
        if (!right) {
            ADD_FAILURE() << "violation|" << oracle << " " << seed << ": " << found
                          << "|scripts/prove " << oracle << " 1 --seed " << seed;
        }
    }
}

TEST(campaign, space) {
    try_asked("space");
}

TEST(campaign, punch) {
    try_asked("punch");
}
