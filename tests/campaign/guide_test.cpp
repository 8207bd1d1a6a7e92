// The repair page against trouble: a robot follows it from its first screen, the truth judges.
// Thousands of random servers by scripts/prove, a sample for each row of the page in the suite.
#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "campaign/asked.h"
#include "campaign/guide_judge.h"
#include "campaign/guide_page.h"
#include "campaign/guide_robot.h"
#include "campaign/guide_samples.h"
#include "campaign/guide_server.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;

static std::string name_of(const std::string& step, const guide_row& row) {
    const std::string cell = row.text.substr(2, row.text.find(" |", 2) - 2);
    return step + " " + cell;
}

static std::string way_of(const guide_walk& walk) {
    std::string way;
    for (const guide_move& move : walk.moves) {
        way += (move.row == nullptr ? move.step : name_of(move.step, *move.row)) + ", ";
    }
    return way + walk.end;
}

struct judged_walk {
    guide_walk walk;
    verdict judged;
};

static judged_walk walk_of(const guide_trouble& trouble, const guide& page) {
    guide_server server(trouble, page);
    guide_walk walk = follow(page, &server);
    const verdict judged = judge(walk, trouble, &server);
    return {std::move(walk), judged};
}

// Whether the trouble ends worse without that row: with no end, a wrong end, more entries lost, or
// "stop" although a repair is possible.
static bool is_needed(const guide_sample& sample, const judged_walk& whole, const guide& page,
                      const guide_move& move) {
    guide without = page;
    std::vector<guide_row>& rows = without.steps.at(move.step).rows;
    rows.erase(rows.begin() + (move.row - page.steps.at(move.step).rows.data()));
    std::string about;
    if (find_row(without.steps.at(move.step), move.seen, &about) == rows.size()) {
        return true;
    }
    const judged_walk other = walk_of(sample.trouble, without);
    return !other.judged.wrong.empty() || other.judged.entries_lost > whole.judged.entries_lost ||
           (whole.walk.end == "done" && other.walk.end == "stop");
}

class guide_row_of_the_page : public testing::TestWithParam<size_t> {};

TEST_P(guide_row_of_the_page, leads_to_the_right_end_and_is_needed) {
    const guide page = read_guide_page();
    const guide_sample& sample = guide_samples()[GetParam()];
    const judged_walk whole = walk_of(sample.trouble, page);
    EXPECT_EQ(whole.judged.wrong, "") << in_words(sample.trouble) << ": " << way_of(whole.walk);
    for (const std::string& name : sample.rows) {
        const auto move = std::find_if(
            whole.walk.moves.begin(), whole.walk.moves.end(), [&](const guide_move& one) {
                return one.row != nullptr && name_of(one.step, *one.row) == name;
            });
        ASSERT_NE(move, whole.walk.moves.end())
            << name << " is not on the way: " << way_of(whole.walk);
        EXPECT_TRUE(is_needed(sample, whole, page, *move)) << name;
    }
}

INSTANTIATE_TEST_SUITE_P(each, guide_row_of_the_page,
                         testing::Range(size_t{0}, guide_samples().size()));

TEST(guide_page, has_no_row_without_a_sample) {
    std::set<std::string> sampled;
    for (const guide_sample& sample : guide_samples()) {
        sampled.insert(sample.rows.begin(), sample.rows.end());
    }
    size_t rows = 0;
    for (const auto& [step, content] : read_guide_page().steps) {
        for (const guide_row& row : content.rows) {
            EXPECT_TRUE(sampled.contains(name_of(step, row))) << name_of(step, row);
            rows++;
        }
    }
    EXPECT_GT(rows, 60u);
}

// Every file with its contents, and when it was written.
static std::set<std::string> files_of(const guide_server& server) {
    std::set<std::string> files;
    for (const char* directory : {"/volume1", "/volume2", "/journal"}) {
        for (const auto& [path, line] : tree_of(server.now() + directory)) {
            const auto when = fs::last_write_time(server.now() + directory + "/" + path);
            files.insert(directory + path + " " + line + " " +
                         std::to_string(when.time_since_epoch().count()));
        }
    }
    return files;
}

TEST(guide_page, looks_at_everything_without_writing_anything) {
    const guide page = read_guide_page();
    const guide_trouble trouble = {"--seed 5 --crash", true, knowledge::list, {"map-node-bit"}, ""};
    guide_server server(trouble, page);
    const std::set<std::string> before = files_of(server);
    const std::string seen = server.type(page.recipes.at("functions") + "list\nlook\ncompare\n" +
                                         "checkmaps\nhidden\njournal\ntrial\n");
    for (const char* line :
         {"checksum mismatched: node_num(", "every map was checked", "Abnormal Shutdown",
          "the replay passed", "every volume was checked"}) {
        EXPECT_NE(seen.find(line), std::string::npos) << line;
    }
    EXPECT_EQ(files_of(server), before);
}

TEST(guide_page, restores_everything_changed_since_its_copies) {
    const guide page = read_guide_page();
    const guide_trouble trouble = {"--seed 5 --crash", true, knowledge::nothing, {}, ""};
    guide_server server(trouble, page);
    (void)server.type(page.recipes.at("functions") + page.steps.at("1").commands);
    (void)server.type(
        "tarn --rpvjnl; tarn --onekeyrepair --volpath /volume1\n"
        "rm /volume2/@EP/EP_FRI /volume2/@EP_trash/*; mv $J $J.aside\n");
    (void)server.type(page.recipes.at("back"));
    for (const char* volume : {"/volume1", "/volume2"}) {
        const auto now = tree_of(server.now() + volume);
        for (const auto& [path, line] : tree_of(server.found() + volume)) {
            EXPECT_EQ(now.contains(path) ? now.at(path) : "gone", line) << path;
        }
    }
    EXPECT_EQ(tree_of(server.now() + "/journal").at("EP_JNL"),
              tree_of(server.found() + "/journal").at("EP_JNL"));
}

TEST(guide_page, does_not_mistake_a_check_that_could_not_run_for_one_that_passed) {
    const guide page = read_guide_page();
    const guide_trouble trouble = {"--seed 5", false, knowledge::nothing, {}, "no first data file"};
    guide_server server(trouble, page);
    const std::string seen = server.type(page.recipes.at("functions") + "checktables\n");
    EXPECT_NE(seen.find("== /volume1\nthis check could not run"), std::string::npos) << seen;
    EXPECT_EQ(seen.find("every volume was checked"), std::string::npos) << seen;
}

TEST(guide_page, gives_a_new_shell_what_the_repair_has_found_so_far) {
    const guide page = read_guide_page();
    const guide_trouble trouble = {"--seed 5", false, knowledge::nothing, {"map-node-bit"}, ""};
    guide_server server(trouble, page);
    (void)server.type(page.recipes.at("functions"));
    server.set("MAP", "/volume1/@iSCSITrg/LUN_0/LUN_0_Extent_0");
    (void)server.type(page.recipes.at("node") + page.recipes.at("without"));
    const std::string seen = server.type(
        "env -i PATH=\"$PATH\" KEEP=$KEEP sh -c "
        "'. $KEEP/functions; echo \"$VOLUMES: $LOST $COUNTS\"'\n");
    EXPECT_EQ(seen, "/volume1 /volume2: 63 no\n");
}

static void count_rows(const guide_walk& walk, figures* counted) {
    for (const guide_move& move : walk.moves) {
        if (move.row != nullptr) {
            counted->count("row|" + name_of(move.step, *move.row));
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
        const judged_walk judged = walk_of(trouble, page);
        const std::string& wrong = judged.judged.wrong;
        count_rows(judged.walk, &counted);
        counted.count("command|guide|" + std::string(trouble.crash ? "crash" : "clean"));
        counted.count("result|" + (wrong.empty() ? judged.walk.end : "wrong"));
        if (!wrong.empty()) {
            ADD_FAILURE() << "violation|" << wrong << "|" << in_words(trouble) << "|"
                          << way_of(judged.walk) << "|scripts/prove guide 1 --seed " << seed;
        }
    }
}
