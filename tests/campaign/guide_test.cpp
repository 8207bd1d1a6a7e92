// The repair page against random trouble: a robot follows it from its first screen, the truth
// judges. Ten thousands of seeds by scripts/prove, a sample of them in the suite.
#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "campaign/asked.h"
#include "campaign/guide_judge.h"
#include "campaign/guide_page.h"
#include "campaign/guide_robot.h"
#include "campaign/guide_server.h"

static std::string way_of(const guide_walk& walk) {
    std::string way;
    for (const guide_move& move : walk.moves) {
        way += move.step + (move.row == nullptr ? "" : "(" + move.row->text.substr(0, 40) + ") ");
    }
    return way;
}

// Together they pass every row of the page, and each row is one that some of them need.
static std::vector<guide_trouble> sample_of_troubles() {
    using enum knowledge;
    return {
        {"--seed 1 --luns 1 --crash", true, nothing, {}, "typing error"},
        {"--seed 2 --luns 1 --crash", true, nothing, {}, "journal header"},
        {"--seed 3 --luns 1 --crash", true, list, {}, "another run"},
        {"--seed 3 --luns 1 --crash", true, nothing, {}, "read-only"},
        {"--seed 4 --luns 1", false, nothing, {}, "unmounted"},
        {"--seed 4 --luns 1", false, list, {}, "copied map"},
        {"--seed 4 --luns 1", false, nothing, {}, "work directory"},
        {"--seed 4 --luns 1", false, nothing, {}, "cut repair"},
        {"--seed 4 --luns 1", false, old_copies, {}, "no data file"},
        {"--seed 4 --luns 1", false, old_copies, {}, "no buffer"},
        {"--seed 5 --luns 1", false, nothing, {}, "far entry"},
        {"--seed 5 --luns 1 --crash", true, nothing, {}, "far entry after a crash"},
        {"--seed 34 --luns 2 --crash", true, nothing, {"map-node-bit --seed 1"}, "boot"},
        {"--seed 5", false, list, {"map-lost", "index-lost"}, ""},
        {"--seed 5", false, list, {"maps-swapped"}, ""},
        {"--seed 5", false, fresh_copies, {"map-node-bit --seed 1"}, ""},
        {"--seed 5", false, list, {"data-file-cut"}, ""},
        {"--seed 5", false, nothing, {"map-node-bit --seed 1"}, ""},
        {"--seed 5", false, nothing, {"map-node-bit --seed 3"}, ""},
        {"--seed 5", false, nothing, {"map-truncated --seed 1"}, ""},
        {"--seed 5", false, nothing, {"mapped-count --seed 1"}, ""},
        {"--seed 5", false, old_copies, {"map-header-bit --seed 1"}, ""},
        {"--seed 5", false, nothing, {"map-header-bit --seed 1"}, ""},
        {"--seed 7", false, nothing, {"pool-table --seed 2"}, ""},
        {"--seed 7", false, old_copies, {"pool-table --seed 2"}, ""},
        {"--seed 7", false, nothing, {"pool-table --seed 1"}, ""},
        {"--seed 5 --crash", true, nothing, {"pool-table --seed 2"}, ""},
        {"--seed 5", false, nothing, {"journal-block --seed 1"}, ""},
        {"--seed 5", false, nothing, {"journal-foreign"}, ""},
        {"--seed 5 --crash", true, nothing, {"journal-foreign"}, ""},
        {"--seed 3 --crash", true, nothing, {"journal-block --seed 3"}, ""},
        {"--seed 2 --crash", true, nothing, {"journal-block --seed 2"}, ""},
        {"--seed 5 --crash", true, nothing, {"map-lost"}, ""},
        {"--seed 5", false, list, {"map-old"}, ""},
        {"--seed 5 --luns 1", false, nothing, {"table-lost"}, ""},
        {"--seed 5 --luns 1", false, fresh_copies, {"table-lost", "table-lost --volume 2"}, ""},
        {"--seed 6 --luns 1", false, nothing, {"table-lost", "table-lost --volume 2"}, ""},
        {"--seed 1 --crash", true, nothing, {"index-lost"}, ""},
        {"--seed 5", false, nothing, {"list-loop", "reference-count"}, ""},
        {"--seed 5", false, nothing, {"free-count"}, ""},
        {"--seed 135 --luns 2", false, nothing, {"index-lost"}, ""},
        trouble_of(0),  // the replay leaves the second volume empty
    };
}

struct told_walk {
    guide_trouble trouble;
    guide_walk walk;
    verdict judged;
};

static told_walk walk_of(const guide_trouble& trouble, const guide& page) {
    guide_server server(trouble, page);
    guide_walk walk = follow(page, &server);
    const verdict judged = judge(walk, trouble, &server);
    if (getenv("GSHOW")) fprintf(stderr, "%s => %s | %s [%s] lost %zu\n", in_words(trouble).c_str(), way_of(walk).c_str(), walk.end.c_str(), judged.wrong.c_str(), judged.entries_lost);
    return {trouble, std::move(walk), judged};
}

// The walk without that row: what it had seen there leads to no row, or to a worse end.
static bool misses_row(const told_walk& told, const guide& page, const std::string& step,
                       const guide_row* row) {
    guide without = page;
    std::vector<guide_row>& rows = without.steps.at(step).rows;
    rows.erase(rows.begin() + (row - page.steps.at(step).rows.data()));
    for (const guide_move& move : told.walk.moves) {
        std::string about;
        if (move.row == row && find_row(without.steps.at(step), move.seen, &about) == rows.size()) {
            return true;
        }
    }
    const told_walk other = walk_of(told.trouble, without);
    return !other.judged.wrong.empty() || other.judged.entries_lost > told.judged.entries_lost;
}

static bool passes(const told_walk& told, const guide_row* row) {
    return std::any_of(told.walk.moves.begin(), told.walk.moves.end(),
                       [row](const guide_move& move) { return move.row == row; });
}

TEST(guide, leads_from_every_trouble_to_a_right_end_and_needs_each_of_its_rows) {
    const guide page = read_guide_page();
    std::vector<told_walk> walks;
    for (const guide_trouble& trouble : sample_of_troubles()) {
        walks.push_back(walk_of(trouble, page));
        EXPECT_EQ(walks.back().judged.wrong, "")
            << in_words(walks.back().trouble) << way_of(walks.back().walk);
    }
    for (const auto& [name, step] : page.steps) {
        for (const guide_row& row : step.rows) {
            const bool missed =
                std::any_of(walks.begin(), walks.end(), [&, name = name](const told_walk& told) {
                    return passes(told, &row) && misses_row(told, page, name, &row);
                });
            EXPECT_TRUE(missed) << "nothing needs this row of step " << name << ": " << row.text;
        }
    }
}

static void count_rows(const guide_walk& walk, figures* counted) {
    for (const guide_move& move : walk.moves) {
        if (move.row != nullptr) {
            counted->count("row|step " + move.step + " " + move.row->text.substr(0, 70));
        }
    }
}

TEST(campaign, guide) {
    const seed_range seeds = asked_seeds();
    if (seeds.count == 0) {
        GTEST_SKIP() << "run by scripts/prove";
    }
    const guide page = read_guide_page();
    figures counted;
    for (uint64_t seed = seeds.first; seed < seeds.first + seeds.count; seed++) {
        const guide_trouble trouble = trouble_of(seed);
        const told_walk told = walk_of(trouble, page);
        const std::string& wrong = told.judged.wrong;
        count_rows(told.walk, &counted);
        counted.count("command|guide|" + std::string(trouble.crash ? "crash" : "clean"));
        counted.count("result|" + (wrong.empty() ? told.walk.end : "wrong"));
        if (!wrong.empty()) {
            ADD_FAILURE() << "violation|" << wrong << "|" << in_words(trouble) << "|"
                          << way_of(told.walk) << "|scripts/prove guide 1 --seed " << seed;
        }
    }
}
