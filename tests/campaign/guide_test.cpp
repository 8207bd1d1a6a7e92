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

// Seeds whose walks pass every row of the page.
static constexpr uint64_t SEEDS[] = {0};

struct told_walk {
    guide_trouble trouble;
    guide_walk walk;
    verdict judged;
};

static told_walk walk_of(const guide_trouble& trouble, const guide& page) {
    guide_server server(trouble, page);
    guide_walk walk = follow(page, &server);
    const verdict judged = judge(walk, trouble, &server);
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
    for (const uint64_t seed : SEEDS) {
        walks.push_back(walk_of(trouble_of(seed), page));
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
