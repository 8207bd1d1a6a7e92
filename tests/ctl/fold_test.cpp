// Raw findings become runs, in an order of their own, below their causes.
#include "ctl/check/fold.h"

#include <algorithm>
#include <gtest/gtest.h>

#include "ctl/reports.h"

using enum finding_code;

// "R01 5+3" for each finding, with the number of its cause behind it.
static std::string brief(const std::vector<finding>& findings) {
    std::string text;
    for (const finding& one : findings) {
        text += std::string(text.empty() ? "" : ", ") + finding_row_of(one.code)->name + " " +
                std::to_string(one.first) + "+" + std::to_string(one.count) +
                (one.because == NO_CAUSE ? "" : " by " + std::to_string(one.because));
    }
    return text;
}

static finding because_of(finding of, int cause) {
    of.because = cause;
    return of;
}

TEST(fold, merges_runs_that_touch) {
    EXPECT_EQ(brief(fold_findings({run_of(R04, 8, 2), run_of(R04, 5, 3), run_of(R04, 11, 1)})),
              "R04 5+5, R04 11+1");
}

TEST(fold, merges_runs_that_overlap_or_repeat) {
    EXPECT_EQ(brief(fold_findings({run_of(R04, 5, 10), run_of(R04, 7, 2), run_of(R04, 5, 10)})),
              "R04 5+10");
}

TEST(fold, counts_the_places_of_a_merged_run) {
    const std::vector<finding> folded = fold_findings({run_of(R04, 5, 1), run_of(R04, 6, 1)});
    ASSERT_EQ(folded.size(), 1u);
    EXPECT_EQ(folded[0].number, 2u);
}

TEST(fold, merges_the_ranges_of_the_same_owner) {
    finding left = run_of(R01, 5, 2);
    finding right = run_of(R01, 7, 1);
    left.owners = {lun_7(100, 2)};
    right.owners = {lun_7(102, 1)};
    const std::vector<finding> folded = fold_findings({right, left});
    ASSERT_EQ(folded.size(), 1u);
    ASSERT_EQ(folded[0].owners.size(), 1u);
    ASSERT_EQ(folded[0].owners[0].ranges.size(), 1u);
    EXPECT_EQ(folded[0].owners[0].ranges[0].lea, 100u);
    EXPECT_EQ(folded[0].owners[0].ranges[0].count, 3u);
}

TEST(fold, keeps_runs_apart_that_differ_in_anything) {
    std::vector<finding> neighbours(8, run_of(R03, 6, 1));
    neighbours[0].code = R04;
    neighbours[1].volume = "/volume2";
    neighbours[2].was = "3";
    neighbours[3].ought = "3";
    neighbours[4].detail = "Odd.";
    neighbours[5].owners = {lun_7(1, 1)};
    neighbours[6].level = severity::damage;
    neighbours[7].log = {"ERR: x"};
    for (const finding& neighbour : neighbours) {
        EXPECT_EQ(fold_findings({run_of(R03, 5, 1), neighbour}).size(), 2u);
    }
}

TEST(fold, keeps_a_finding_apart_that_stands_for_other_places_too) {
    finding many = run_of(R04, 6, 1);
    many.number = 5;
    EXPECT_EQ(fold_findings({run_of(R04, 5, 1), many}).size(), 2u);
}

TEST(fold, sorts_the_worst_first_then_by_volume_code_and_place) {
    EXPECT_EQ(brief(fold_findings({run_of(R05, 1, 1), run_of(R04, 2, 1), run_of(T02, 3, 1),
                                   run_of(R01, 5, 1, "/volume2"), run_of(R02, 4, 1),
                                   run_of(R01, 9, 1), run_of(R01, 7, 1)})),
              "R01 7+1, R01 9+1, R02 4+1, R01 5+1, T02 3+1, R04 2+1, R05 1+1");
}

TEST(fold, puts_what_could_not_be_read_between_damage_and_counts) {
    EXPECT_EQ(brief(fold_findings({run_of(F10, 1, 1), found(X01), run_of(T02, 3, 1)})),
              "T02 3+1, X01 0+0, F10 1+1");
}

TEST(fold, puts_consequences_after_their_cause_and_renumbers_them) {
    EXPECT_EQ(brief(fold_findings({because_of(run_of(R01, 7, 1), 2), run_of(R04, 1, 1),
                                   run_of(T01, 3, 1), because_of(run_of(R01, 6, 1), 2)})),
              "T01 3+1, R01 6+2 by 0, R04 1+1");
}

TEST(fold, sorts_a_cause_by_its_worst_consequence) {
    EXPECT_EQ(brief(fold_findings(
                  {run_of(T02, 1, 1), because_of(run_of(R01, 7, 1), 2), run_of(T01, 3, 1)})),
              "T01 3+1, R01 7+1 by 0, T02 1+1");
}

TEST(fold, keeps_consequences_of_consequences) {
    EXPECT_EQ(brief(fold_findings({because_of(run_of(F10, 9, 1), 1),
                                   because_of(run_of(R04, 5, 1), 2), run_of(T01, 3, 1)})),
              "T01 3+1, R04 5+1 by 0, F10 9+1 by 1");
}

TEST(fold, does_not_merge_consequences_of_different_causes) {
    EXPECT_EQ(
        brief(fold_findings({run_of(T01, 1, 1), run_of(T01, 9, 1), because_of(run_of(R04, 5, 1), 0),
                             because_of(run_of(R04, 6, 1), 1)})),
        "T01 1+1, R04 5+1 by 0, T01 9+1, R04 6+1 by 2");
}

TEST(fold, takes_findings_that_explain_each_other_as_causes) {
    EXPECT_EQ(
        brief(fold_findings({because_of(run_of(R04, 5, 1), 1), because_of(run_of(R01, 9, 1), 0),
                             because_of(run_of(F10, 1, 1), 77)})),
        "R01 9+1, F10 1+1, R04 5+1");
}

TEST(fold, puts_the_rest_of_a_code_last) {
    finding rest = found(R04);
    rest.number = 50;
    rest.extent_size = 1048576;
    EXPECT_EQ(brief(fold_findings({rest, run_of(R04, 5, 1)})), "R04 5+1, R04 0+0");
}

TEST(fold, gives_the_same_list_in_whatever_order_findings_come) {
    std::vector<finding> raw;
    for (uint64_t i = 0; i < 7; i++) {
        raw.push_back(run_of(i % 2 == 0 ? R04 : R03, 10 * i, 1 + i));
        raw.back().owners = {lun_7(i, 1), {"LUN_1", "lun", "f", {{9 - i, 1}}, 0}};
        raw.back().was = std::to_string(i % 3);
    }
    const std::string expected = json_of(report_of(fold_findings(raw)));
    std::vector<size_t> order = {0, 1, 2, 3, 4, 5, 6};
    do {
        std::vector<finding> shuffled;
        for (const size_t i : order) {
            shuffled.push_back(raw[i]);
        }
        ASSERT_EQ(json_of(report_of(fold_findings(shuffled))), expected);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(fold, joins_what_windows_have_cut) {
    std::vector<finding> cut;
    for (uint64_t first = 0; first < 3000; first += 7) {
        cut.push_back(run_of(R01, first, std::min<uint64_t>(7, 3000 - first)));
        cut.back().owners = {lun_7(first + 50, cut.back().count)};
    }
    finding whole = run_of(R01, 0, 3000);
    whole.owners = {lun_7(50, 3000)};
    EXPECT_EQ(json_of(report_of(fold_findings(cut))), json_of(report_of(fold_findings({whole}))));
}
