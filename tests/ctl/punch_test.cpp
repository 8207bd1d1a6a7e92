// `tarnctl punch`: its ranges against those of a brute-force count, carried out by tarn; every
// damage that makes it unsafe; and that it writes nothing.
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>

#include "ctl/support/check_run.h"
#include "ctl/support/everything.h"
#include "ctl/support/space_trials.h"
#include "system/support/lab_sample.h"

using nlohmann::json;

static ctl_run punch(const std::string& sample, const std::string& words = "") {
    return run_ctl(sample, "punch " + words);
}

// Validates everything that a test's runs printed, at once.
class punch_on_samples : public testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(schema_problem(printed_), ""); }
    std::string reasons_of(const std::string& sample, const std::string& words = "");
    ctl_run printed(const ctl_run& run) {
        printed_ += run.out;
        return run;
    }

private:
    std::string printed_;
};

// The codes of the reasons, each once; what has no code is "-". Fails if it was no refusal.
std::string punch_on_samples::reasons_of(const std::string& sample, const std::string& words) {
    const ctl_run run = printed(punch(sample, "--json " + words));
    EXPECT_EQ(run.status, 32) << run.out;
    std::string codes;
    std::istringstream lines(run.out);
    for (std::string line; std::getline(lines, line);) {
        const json record = json::parse(line);
        EXPECT_NE(record.at("record"), "punch");
        if (record.at("record") == "refusal") {
            const std::string code = record.at("code").is_null() ? "-" : record.at("code");
            codes += codes.find(code) != std::string::npos ? "" : (codes.empty() ? "" : " ") + code;
        }
    }
    return codes;
}

TEST(punch_ranges, are_those_of_a_brute_force_count_and_give_back_what_they_say) {
    for (const unsigned seed : {0, 1, 3}) {
        EXPECT_EQ(try_space("punch", seed), "right") << seed;
    }
}

// Everything that puts in doubt which extents are free, with the reason that has to be given.
TEST_F(punch_on_samples, is_refused_while_anything_is_in_doubt) {
    const struct {
        const char* kind;
        const char* reasons;
    } rows[] = {
        {"index-header-bit", "H01"},
        {"table-header-bit", "H01"},
        {"map-header-bit", "H01"},
        {"index-block-bit", "F01"},
        {"table-block-bit", "T01"},
        {"map-node-bit", "M01"},
        {"index-lost", "H05"},
        {"table-lost", "H05 -"},
        {"table-noise", "T01"},
        {"list-loop", "F03"},
        {"list-used", "F02"},
        {"list-tail", "F04"},
        {"group-loop", "F07"},
        {"mapped-count", "M03"},
        {"pool-table", "M06"},
        {"map-truncated", "M05 -"},
        {"alias", "R02"},
        {"dangling", "R01"},
        {"far-lpa", "R07"},
        {"uuid-twice", "P01"},
        {"pool-uuid", "M07"},
        {"foreign-pool-row", "M07"},
        {"entry-behind-end", "M04"},
        {"orphan-map", "M10"},
        {"data-file-gap", "D01"},
        {"torn-node", "M03"},
        {"journal-block-in-window", "J01 J03"},
    };
    for (const auto& row : rows) {
        const scratch_dir place;
        const std::string sample = make_sample(place, "s");
        ASSERT_EQ(damage(sample, row.kind, 1).status, 0) << row.kind;
        const auto before = everything(sample);
        EXPECT_EQ(reasons_of(sample), row.reasons) << row.kind;
        EXPECT_EQ(everything(sample), before);
    }
}

// Counts and lists of the index, and extents that nobody can free by mistake: no obstacle.
TEST_F(punch_on_samples, is_not_refused_for_lost_space_and_wrong_counts) {
    for (const std::string kind :
         {"leak", "reference-count", "list-count", "free-count", "index-open-end", "map-lost"}) {
        const scratch_dir place;
        const std::string sample = make_sample(place, "s");
        ASSERT_EQ(damage(sample, kind, 1).status, 0) << kind;
        const ctl_run run = printed(punch(sample, "--json"));
        EXPECT_EQ(run.status, 0) << kind << run.out;
    }
}

TEST_F(punch_on_samples, is_refused_while_the_journal_waits_for_its_replay) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 5, " --crash");
    const auto before = everything(sample);
    EXPECT_EQ(reasons_of(sample), "J01");
    EXPECT_EQ(reasons_of(sample, "--volume " + sample + "/volume2"), "J01");
    EXPECT_EQ(everything(sample), before);
}

TEST_F(punch_on_samples, is_refused_while_a_volume_or_a_repair_is_not_complete) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    ASSERT_EQ(shell("mkdir " + sample + "/volume1/@EP_FIX").status, 0);
    EXPECT_EQ(reasons_of(sample), "S02");
    EXPECT_EQ(punch(sample, "--volume " + sample + "/volume2").status, 0);
    ASSERT_EQ(shell("rm -r " + sample + "/volume1").status, 0);
    EXPECT_EQ(reasons_of(sample), "S01");
    EXPECT_EQ(reasons_of(sample, "--volume " + sample + "/volume2"), "S01");
}

TEST_F(punch_on_samples, is_refused_if_tarn_would_use_another_extent_size) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    std::ofstream(sample + "/platform.conf", std::ios::app) << "extent_shift = 16\n";
    EXPECT_EQ(reasons_of(sample), "-");
}

// A damaged volume does not keep from another one.
TEST_F(punch_on_samples, of_one_volume_looks_at_this_one_alone) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    ASSERT_EQ(damage(sample, "map-node-bit", 1).status, 0);
    EXPECT_EQ(reasons_of(sample, "--volume " + sample + "/volume1"), "M01");
    EXPECT_EQ(punch(sample, "--volume " + sample + "/volume2").status, 0);
}

TEST(punch, names_every_reason_on_standard_error) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    ASSERT_EQ(damage(sample, "mapped-count", 1).status, 0);
    const ctl_run run = punch(sample);
    EXPECT_EQ(run.status, 32);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err,
              "tarnctl: refused: it is not safe to punch holes now.\n"
              "    M03  LUN_0: the header has a wrong number of mapped entries.\n"
              "Run: tarnctl check\n");
}

TEST(punch, writes_nothing_and_reports_what_it_cannot_print) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    const auto before = everything(sample);
    EXPECT_EQ(punch(sample).status, 0);
    EXPECT_EQ(punch(sample, ">/dev/full").status, 8);
    EXPECT_EQ(punch(sample, "--json >/dev/full").status, 8);
    EXPECT_EQ(punch(sample, "--volume /nowhere").status, 8);
    EXPECT_EQ(everything(sample), before);
}
