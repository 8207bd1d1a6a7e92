// tarn-lab run: a service that makes transactions until it is stopped or killed. Whatever it leaves
// is recovered by start-up replay, and verify knows it.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/scratch_file.h"
#include "system/support/lab_sample.h"
#include "system/support/tree.h"

static const std::vector<uint8_t> ABNORMAL = {0xFF, 0xFF, 0xFF, 0xFF};

static std::vector<uint8_t> status_of(const std::string& sample) {
    return file_bytes(sample + "/journal/EP_JNL", 4100, 4);
}

static ran verify(const std::string& sample, const std::string& more = "") {
    return tarn_lab("verify " + sample + more);
}

static void expect_recovery(const std::string& sample) {
    const ran replay = tarn_on(sample, "--startup-replay");
    EXPECT_EQ(replay.status, 0) << replay.text;
    EXPECT_EQ(verify(sample).text, sample + ": every file is as expected.\n");
}

// Starts the run as process $p of a shell, waits until it makes steps, and does `then`.
static ran run_and(const std::string& sample, const std::string& then, unsigned seed = 1) {
    const std::string begun = sample + "/lab.run";
    return shell("(" + std::string(TARN_LAB_PROGRAM) + " run " + sample + " --seed " +
                 std::to_string(seed) + " & p=$!; for i in $(seq 1000); do [ -e " + begun +
                 " ] && break; sleep 0.01; done; " + then + "; wait $p)");
}

static std::string after(unsigned milliseconds, const std::string& command) {
    return "sleep 0." + std::to_string(1000 + milliseconds).substr(1) + "; " + command;
}

TEST(run, makes_transactions_for_some_time_and_is_recovered) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    const ran run = tarn_lab("run " + sample + " --seconds 2");
    ASSERT_EQ(run.status, 0) << run.text;
    const uint64_t made = number_after(run.text, sample + ": ");
    EXPECT_GT(made, 5u);
    const uint64_t newest = number_after(run.text, "the newest has id ");
    EXPECT_EQ(newest, 200 + made) << "200 transactions from id 1 on are in the sample";
    EXPECT_EQ(status_of(sample), ABNORMAL);
    expect_recovery(sample);
    EXPECT_FALSE(file_exists(sample + "/journal/EP_JNL"));
    EXPECT_EQ(verify(sample, " --rebuilt").status, 0);
    const uint8_t wrong = file_bytes(sample + "/volume1/@EP/EP_TBL", 1048576, 1)[0] ^ 1;
    write_file_bytes(sample + "/volume1/@EP/EP_TBL", 1048576, &wrong, 1);
    EXPECT_EQ(verify(sample).status, 1);
}

TEST(run, killed_at_any_time_is_recovered) {
    unsigned unfinished = 0;  // with metadata that only the journal has
    for (unsigned kill = 1; kill <= 16; kill++) {
        SCOPED_TRACE(kill);
        const scratch_dir place;
        const std::string transactions = kill % 4 == 0 ? " --transactions 0" : "";
        const std::string sample = make_sample(place, "s", kill, transactions);
        EXPECT_NE(run_and(sample, after(1 + kill * 37 % 60, "kill -KILL $p"), kill).status, 0);
        unfinished += verify(sample).status == 1 ? 1 : 0;
        expect_recovery(sample);
    }
    EXPECT_GE(unfinished, 4u);
}

TEST(run, killed_while_it_starts_is_recovered) {
    for (unsigned kill = 1; kill <= 4; kill++) {
        SCOPED_TRACE(kill);
        const scratch_dir place;
        const std::string sample = make_sample(place, "s", kill);
        EXPECT_NE(shell("timeout -s KILL 0.00" + std::to_string(kill * 2) + " " + TARN_LAB_PROGRAM +
                        " run " + sample)
                      .status,
                  0);
        expect_recovery(sample);
    }
}

TEST(run, stops_between_two_transactions_when_it_is_asked_to) {
    for (const char* signal : {"TERM", "INT"}) {
        const scratch_dir place;
        const std::string sample = make_sample(place, "s");
        const ran run = run_and(sample, after(50, std::string("kill -") + signal + " $p"));
        EXPECT_EQ(run.status, 0) << run.text;
        EXPECT_EQ(run.text.find(sample + ": "), 0u) << run.text;
        EXPECT_EQ(status_of(sample), ABNORMAL);
        expect_recovery(sample);
    }
}

TEST(run, refuses_what_it_does_not_know_and_changes_nothing) {
    const struct {
        const char* options;  // of make
        const char* kind;     // of damage
        const char* reason;
    } rows[] = {
        {" --crash", "", "only a sample without --crash and --unfinalized can run\n"},
        {" --unfinalized", "", "only a sample without --crash and --unfinalized can run\n"},
        {"", "index-lost", "is not as made: volume1/@EP/EP_FRI: cannot be opened: No such file"},
    };
    for (const auto& row : rows) {
        const scratch_dir place;
        const std::string sample = make_sample(place, "s", 5, row.options);
        if (*row.kind != '\0') {
            ASSERT_EQ(damage(sample, row.kind, 1).status, 0);
        }
        const auto before = tree_of(sample);
        const ran run = tarn_lab("run " + sample + " --seconds 1");
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.text.find("tarn-lab: " + sample + ": " + row.reason), 0u) << run.text;
        EXPECT_EQ(tree_of(sample), before);
    }
}

TEST(run, of_a_sample_that_has_run_is_refused_and_so_is_the_comparison_with_the_crash) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    ASSERT_EQ(run_and(sample, after(50, "kill $p")).status, 0);
    const auto before = tree_of(sample);
    const ran again = tarn_lab("run " + sample + " --seconds 1");
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.text, "tarn-lab: " + sample + ": has run before\n");
    const ran refused = verify(sample, " --refused");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.text, "tarn-lab: " + sample + ": has run: what the run left is not known\n");
    EXPECT_EQ(tree_of(sample), before);
}

TEST(run, ends_with_a_failure_when_a_write_fails) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    const ran run = run_and(sample, "rm " + sample + "/journal/EP_JNL");
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.text, "tarn-lab: " + sample + "/journal/EP_JNL: No such file or directory\n");
}

TEST(run, of_a_sample_that_has_run_its_files_can_be_damaged) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    ASSERT_EQ(run_and(sample, after(50, "kill $p")).status, 0);
    for (const char* kind : {"alias", "leak", "map-old", "torn-node", "journal-block-in-window"}) {
        const ran done = damage(sample, kind, 1);
        EXPECT_EQ(done.status, 0) << done.text;
    }
}
