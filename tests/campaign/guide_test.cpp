// The repair page against random trouble: a robot follows it from its first screen, the truth
// judges. Ten thousands of seeds by scripts/prove, a sample of them in the suite.
#include <gtest/gtest.h>
#include <map>
#include <string>

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
        guide_server server(trouble, page);
        const guide_walk walk = follow(page, &server);
        const std::string wrong = judge(walk, trouble, &server).wrong;
        count_rows(walk, &counted);
        counted.count("command|guide|" + std::string(trouble.crash ? "crash" : "clean"));
        counted.count("result|" + (wrong.empty() ? walk.end : "wrong"));
        if (!wrong.empty()) {
            ADD_FAILURE() << "violation|" << wrong << "|" << in_words(trouble) << "|"
                          << way_of(walk) << "|scripts/prove guide 1 --seed " << seed;
        }
    }
}
