// `tarnctl guard`: what stops start-up replay, what does not, and which reasons can be accepted.
#include <gtest/gtest.h>

#include "ctl/support/check_run.h"
#include "ctl/support/everything.h"
#include "system/support/lab_sample.h"

static ran guard(const std::string& sample, const std::string& more = "") {
    return shell("env TARN_PLATFORM_CONF=" + sample + "/platform.conf " + TARN_CTL_PROGRAM +
                 " guard " + more);
}

static void expect_stopped(const ran& guarded, const std::string& words) {
    EXPECT_EQ(guarded.status, 32) << guarded.text;
    EXPECT_NE(guarded.text.find(words), std::string::npos) << guarded.text;
}

class guarded : public testing::Test {
protected:
    std::string make(const std::string& more, unsigned seed = 5) {
        return make_sample(place_, "s" + std::to_string(made_++), seed, more);
    }
    // A crashed sample that start-up replay recovers, with a journal that names many maps.
    std::string make_crashed(unsigned seed = 5) { return make(" --crash --transactions 60", seed); }

    scratch_dir place_;
    int made_ = 0;
};

TEST_F(guarded, sound_and_crashed_servers_may_start) {
    for (const char* shape : {"", " --crash", " --unfinalized", " --crash --volumes 3"}) {
        const std::string sample = make(std::string(" --transactions 40") + shape);
        const auto before = everything(sample);
        const ran asked = guard(sample);
        EXPECT_EQ(asked.status, 0) << asked.text;
        EXPECT_EQ(asked.text, "Start-up replay may begin.\n");
        EXPECT_EQ(everything(sample), before);
    }
}

TEST_F(guarded, servers_without_a_journal_may_start) {
    const std::string sample = make(" --transactions 20");
    ASSERT_EQ(shell("rm " + sample + "/journal/EP_JNL").status, 0);
    EXPECT_EQ(guard(sample).status, 0);
}

// Nobody knows whether a replay is due.
TEST_F(guarded, a_journal_that_cannot_be_read_stops_it) {
    const std::string sample = make_crashed();
    ASSERT_EQ(shell("cd " + sample + "/journal && rm EP_JNL && mkdir EP_JNL").status, 0);
    expect_stopped(guard(sample), "stopped by X01: " + sample + "/journal/EP_JNL: cannot be read.");
    EXPECT_EQ(guard(sample, "--accept X01").status, 0);
}

TEST_F(guarded, volumes_that_are_missing_or_empty_stop_it) {
    for (const char* command : {"mv volume2 away", "mv volume2 away; mkdir volume2"}) {
        for (const char* shape : {" --crash", ""}) {
            const std::string sample = make(std::string(" --transactions 20") + shape);
            ASSERT_EQ(shell("cd " + sample + " && " + command).status, 0);
            expect_stopped(guard(sample), "stopped by S01: " + sample +
                                              "/volume2: named in the "
                                              "configuration, but not ready for use.");
        }
    }
}

// A journal on a file system that is not mounted looks like none.
TEST_F(guarded, a_journal_directory_that_is_missing_stops_it) {
    for (const char* command : {"mv journal away", "mv journal away; touch journal"}) {
        const std::string sample = make_crashed();
        ASSERT_EQ(shell("cd " + sample + " && " + command).status, 0);
        expect_stopped(guard(sample), "stopped by S01: " + sample +
                                          "/journal: named in the configuration, but not ready for "
                                          "use.");
        const check_run checked = check_sample(sample);
        EXPECT_TRUE(checked.has("S01")) << checked.out;
        EXPECT_GE(checked.status, 4);
        ASSERT_EQ(shell("cd " + sample + " && rm -f journal && mv away journal").status, 0);
        EXPECT_EQ(guard(sample).status, 0);
        EXPECT_FALSE(check_sample(sample).has("S01"));
    }
}

TEST_F(guarded, a_missing_table_stops_it) {
    for (const char* name : {"EP_TBL", "EP_FRI"}) {
        const std::string sample = make(" --transactions 20");
        ASSERT_EQ(shell("rm " + sample + "/volume1/@EP/" + name).status, 0);
        expect_stopped(guard(sample), "stopped by H05: " + sample + "/volume1/@EP/" + name);
    }
}

TEST_F(guarded, a_configuration_that_cannot_be_read_stops_it) {
    expect_stopped(
        shell(std::string("env TARN_PLATFORM_CONF=/nothing/here ") + TARN_CTL_PROGRAM + " guard"),
        "refused: ");
    const std::string sample = make(" --transactions 20");
    ASSERT_EQ(shell("echo nonsense >" + sample + "/platform.conf").status, 0);
    expect_stopped(guard(sample), "refused: ");
}

TEST_F(guarded, a_damaged_block_in_the_window_stops_it_only_when_a_replay_is_due) {
    unsigned judged = 0;
    for (unsigned seed = 1; seed < 12 && judged < 3; seed++) {
        const std::string crashed = make_crashed(seed);
        if (damage(crashed, "journal-block-in-window", seed).status != 0 ||
            !check_sample(crashed, "--raw").has("J03")) {
            continue;
        }
        judged++;
        expect_stopped(guard(crashed), "stopped by J03: the journal");
        const ran accepted = guard(crashed, "--accept J03");
        EXPECT_EQ(accepted.status, 0) << accepted.text;
        EXPECT_NE(accepted.text.find("accepted J03"), std::string::npos) << accepted.text;
        EXPECT_EQ(guard(crashed, "--accept M01").status, 32);
    }
    EXPECT_EQ(judged, 3u);
    const std::string closed = make(" --transactions 60");
    ASSERT_EQ(damage(closed, "journal-block", 3).status, 0);
    EXPECT_TRUE(check_sample(closed).has("J03"));
    EXPECT_EQ(guard(closed).status, 0);
}

TEST_F(guarded, a_damaged_node_stops_it_in_a_map_that_the_journal_names) {
    const std::string crashed = make_crashed(7);
    ASSERT_EQ(damage(crashed, "map-node-bit", 3).status, 0);
    expect_stopped(guard(crashed), "stopped by M01: ");
    const std::string closed = make(" --transactions 60", 7);
    ASSERT_EQ(damage(closed, "map-node-bit", 3).status, 0);
    EXPECT_EQ(guard(closed).status, 0);
}

TEST_F(guarded, the_journal_of_another_server_stops_it) {
    const std::string sample = make(" --transactions 20");
    const std::string other = make_crashed(6);
    ASSERT_EQ(shell("cp " + other + "/journal/EP_JNL " + sample + "/journal/EP_JNL").status, 0);
    expect_stopped(guard(sample),
                   "stopped by S07: the journal: has records for a table or an "
                   "index that no volume has.");
    EXPECT_EQ(guard(sample, "--accept S07").status, 0);
}

TEST_F(guarded, reasons_are_records_too) {
    const std::string sample = make(" --transactions 20");
    ASSERT_EQ(shell("mv " + sample + "/volume2 " + sample + "/away").status, 0);
    const check_run run = run_limited("env TARN_PLATFORM_CONF=" + sample + "/platform.conf " +
                                      TARN_CTL_PROGRAM + " --json guard");
    EXPECT_EQ(run.status, 32);
    EXPECT_EQ(schema_problem(run.out), "");
    EXPECT_NE(run.out.find(R"("record":"reason","code":"S01","accepted":false)"), std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find(R"("verdict":"stop","exit":32)"), std::string::npos) << run.out;
}

TEST_F(guarded, codes_that_do_not_exist_are_no_options) {
    EXPECT_EQ(guard(make(" --transactions 20"), "--accept Z99").status, 16);
}
