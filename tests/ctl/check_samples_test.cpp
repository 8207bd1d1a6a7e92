// `tarnctl check` on samples of tarn-lab: what each damage has to show and nothing else, sound
// servers of many shapes, and servers as a power failure left them. A few seeds here; scripts/prove
// check tries many.
#include <algorithm>
#include <gtest/gtest.h>
#include <sstream>

#include "ctl/support/damage_table.h"
#include "ctl/support/trials.h"
#include "system/support/shell.h"
#include "system/support/test_name.h"

class damage_kinds : public testing::TestWithParam<std::string> {};

TEST_P(damage_kinds, show_where_they_are_and_nothing_else) {
    unsigned tried = 0;
    for (unsigned seed = 5; seed < 10 && tried < 2; seed++) {
        const std::string found = try_damage(GetParam(), seed);
        if (found != "no place") {
            EXPECT_EQ(found, "right") << "seed " << seed;
            tried++;
        }
    }
    EXPECT_EQ(tried, 2u);
}

static std::vector<std::string> kinds_in_the_table() {
    std::vector<std::string> kinds;
    for (const damage_row& row : damage_rows()) {
        kinds.emplace_back(row.kind);
    }
    return kinds;
}

INSTANTIATE_TEST_SUITE_P(all, damage_kinds, testing::ValuesIn(kinds_in_the_table()),
                         [](const auto& kind) { return test_name(kind.param); });

TEST(damage_table, has_every_kind_of_damage) {
    const std::string help = tarn_lab("--help").text;
    std::istringstream lines(help.substr(help.find("\nKinds of damage:\n") + 18));
    std::vector<std::string> kinds;
    for (std::string kind, rest; lines >> kind && std::getline(lines, rest);) {
        kinds.push_back(kind);
    }
    EXPECT_GT(kinds.size(), 40u);
    EXPECT_EQ(kinds, kinds_in_the_table());
}

// Without the transactions before the damaged block, maps and tables of this seed do not fit
// together.
TEST(damage_of_the_journal, explains_what_a_cut_replay_leaves) {
    EXPECT_EQ(try_damage("journal-block-in-window", 103), "right");
}

TEST(damage_pairs, show_both) {
    for (unsigned seed = 1; seed <= 6; seed++) {
        const std::string found = try_pair(seed);
        EXPECT_TRUE(found == "right" || found == "no place") << "seed " << seed << ": " << found;
    }
}

TEST(sound_servers, have_nothing_but_notes) {
    unsigned tried = 0;
    for (unsigned seed = 1; seed <= 22; seed++) {
        const std::string found = try_clean(seed);
        if (found != "no place") {
            EXPECT_EQ(found, "right") << "seed " << seed << clean_shape(seed);
            tried++;
        }
    }
    EXPECT_GE(tried, 20u);
}

TEST(crashed_servers, are_looked_at_as_if_replayed_and_left_as_they_are) {
    unsigned differing = 0;
    for (unsigned seed = 21; seed <= 30; seed++) {  // 23 is one that a replay refuses
        bool differs = false;
        EXPECT_EQ(try_crash(seed, &differs), "right") << "seed " << seed;
        differing += differs ? 1 : 0;
    }
    EXPECT_GE(differing, 3u);
}
