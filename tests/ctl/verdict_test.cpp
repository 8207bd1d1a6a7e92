// What all findings together come to.
#include <gtest/gtest.h>

#include "ctl/reports.h"

using enum finding_code;

static void expect_verdict(const check_report& report, int status, const char* word) {
    EXPECT_EQ(static_cast<int>(exit_of(report)), status);
    EXPECT_STREQ(verdict_of(report), word);
}

TEST(verdict, notes_never_change_it) {
    expect_verdict(report_of({}), 0, "clean");
    expect_verdict(report_of({found(T04), found(J01)}), 0, "clean");
}

TEST(verdict, is_that_of_the_worst_finding) {
    expect_verdict(report_of({found(T04), found(R04)}), 3, "counts");
    expect_verdict(report_of({found(R04), found(T02), found(T04)}), 4, "damage");
    expect_verdict(report_of({found(T02), found(R01), found(R04)}), 5, "urgent");
}

TEST(verdict, follows_the_severity_of_the_finding_and_not_of_its_code) {
    finding harmless = found(S01);
    harmless.level = severity::note;
    expect_verdict(report_of({harmless}), 0, "clean");
    finding worse = found(F08);
    worse.level = severity::damage;
    expect_verdict(report_of({worse}), 4, "damage");
}

TEST(verdict, of_an_incomplete_check_is_never_clean_and_yields_to_damage) {
    check_report report = report_of({});
    report.complete = false;
    expect_verdict(report, 6, "incomplete");
    report.findings = {found(R04)};
    expect_verdict(report, 6, "incomplete");
    report.findings = {found(T02)};
    expect_verdict(report, 4, "damage");
    report.findings = {found(R01)};
    expect_verdict(report, 5, "urgent");
}

TEST(verdict, is_incomplete_with_anything_unreadable) {
    expect_verdict(report_of({found(X01)}), 6, "incomplete");
    expect_verdict(report_of({found(X01), found(M01)}), 4, "damage");
}

TEST(verdict, is_never_better_than_a_consequence) {
    finding consequence = found(R01);
    consequence.because = 0;
    expect_verdict(report_of({found(T01), consequence}), 5, "urgent");
}
