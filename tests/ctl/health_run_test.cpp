// `check --state` and `tarnctl health` as a monitoring system runs them: exit statuses, what is
// refused, and that nothing but a known, recent, clean check and a sound look now is OK.
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "ctl/support/check_run.h"
#include "ctl/support/everything.h"
#include "ctl/support/sealed_state.h"
#include "system/support/lab_sample.h"
#include "system/support/private_root.h"

namespace fs = std::filesystem;

static std::string text_of(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

class health_run : public testing::Test {
protected:
    health_run() : sample_(make_sample(place_, "s", 5, " --extents 500")) {}

    [[nodiscard]] std::string file(const std::string& below) const { return sample_ + "/" + below; }
    [[nodiscard]] std::string state() const { return place_.file("state"); }
    // `words` may end with redirections.
    [[nodiscard]] check_run run(const std::string& words) const {
        return run_limited("sh -c \"" TARN_CTL_PROGRAM " --conf " + sample_ + "/platform.conf " +
                           words + "\"");
    }
    [[nodiscard]] check_run check(const std::string& more = "") const {
        return run("check --quiet --state " + state() + " " + more);
    }
    [[nodiscard]] check_run health(const std::string& more = "") const {
        return run("health --state " + state() + " " + more);
    }
    // The answer of each format: the exit status, and that of a plug-in, must be these.
    void expect_health(int status, int plugin) {
        EXPECT_EQ(health("--quiet").status, status);
        EXPECT_EQ(health("--format prometheus").status, status);
        const check_run checkmk = health("--format checkmk");
        EXPECT_EQ(checkmk.status, status);
        EXPECT_EQ(checkmk.out.substr(0, 2), std::to_string(plugin) + " ") << checkmk.out;
        EXPECT_EQ(health("--format nagios").status, plugin);
        const check_run json = health("--json");
        EXPECT_EQ(json.status, status);
        json_ += json.out;
        EXPECT_NE(json.out.find("\"exit\":" + std::to_string(status) + ",\"findings\":"),
                  std::string::npos)
            << json.out;
    }
    void damage_it(const std::string& kind) const {
        const ran done = damage(sample_, kind, 1);
        EXPECT_EQ(done.status, 0) << done.text;
    }
    void put_state(const std::string& text) const {
        std::ofstream(state(), std::ios::binary | std::ios::trunc) << text;
    }

    void TearDown() override {
        if (!json_.empty()) {
            EXPECT_EQ(schema_problem(json_), "");
        }
    }

    scratch_dir place_;
    std::string sample_;
    std::string json_;  // every line that was printed
};

TEST_F(health_run, of_a_clean_server) {
    EXPECT_EQ(check().status, 0);
    expect_health(0, 0);
    const std::string text = health().out;
    EXPECT_NE(text.find(" ago, was clean.\n"), std::string::npos) << text;
    EXPECT_TRUE(text.ends_with("\n\nHealthy: nothing is known to be wrong. Exit status 0.\n"))
        << text;
}

TEST_F(health_run, changes_nothing_and_leaves_no_file) {
    EXPECT_EQ(check().status, 0);
    const auto server = everything(sample_);
    const auto around = everything(place_.path());
    EXPECT_EQ(health().status, 0);
    EXPECT_EQ(everything(place_.path()), around);
    EXPECT_EQ(check().status, 0);
    EXPECT_EQ(everything(sample_), server);
}

// As many extents as the maps of the sample have: counted by the model, and by the index.
TEST_F(health_run, state_has_the_extents_of_the_check) {
    EXPECT_EQ(check().status, 0);
    const std::string before = text_of(state());
    EXPECT_NE(before.find("\"leaked\":0,"), std::string::npos) << before;
    damage_it("leak");
    EXPECT_EQ(check().status, 3);
    const std::string after = text_of(state());
    EXPECT_NE(after.find("\"leaked\":1,"), std::string::npos) << after;
    const auto used = [](const std::string& text) { return number_after(text, "\"used\":"); };
    const auto free = [](const std::string& text) { return number_after(text, "\"free\":"); };
    EXPECT_EQ(used(after), used(before) + 1);
    EXPECT_EQ(free(after), free(before) - 1);
    EXPECT_EQ(used(after) + free(after), 2164663517184u);
    EXPECT_NE(after.find("\"codes\":{\"R04\":1}"), std::string::npos) << after;
    EXPECT_NE(after.find("\"history\":[{\"completed\":"), std::string::npos) << after;
    expect_health(3, 1);
}

TEST_F(health_run, leaks_are_not_known_while_a_map_cannot_be_read) {
    damage_it("leak");
    const std::string map = file("volume1/@iSCSITrg/LUN_0/LUN_0_Extent_0");
    fs::rename(map, place_.file("kept"));
    fs::create_directory(map);
    EXPECT_EQ(check().status, 6);
    EXPECT_NE(text_of(state()).find("\"leaked\":null,"), std::string::npos);
    expect_health(6, 3);
}

TEST_F(health_run, tells_the_last_verdict) {
    damage_it("alias");
    EXPECT_EQ(check().status, 5);
    expect_health(5, 2);
    EXPECT_NE(health("--format nagios").out.find(" ago, found something urgent. |"),
              std::string::npos);
}

TEST_F(health_run, sees_what_happened_since) {
    EXPECT_EQ(check().status, 0);
    fs::rename(file("volume2"), place_.file("aside"));
    expect_health(4, 2);
    EXPECT_NE(health().out.find("\nDAMAGE S01  " + file("volume2") + ": "), std::string::npos);
    fs::create_directory(file("volume2"));
    expect_health(4, 2);
    fs::remove(file("volume2"));
    fs::rename(place_.file("aside"), file("volume2"));

    fs::rename(file("volume1/@EP/EP_FRI"), place_.file("aside"));
    EXPECT_NE(health().out.find("\nDAMAGE H05  " + file("volume1/@EP/EP_FRI") + ": "),
              std::string::npos);
    fs::rename(place_.file("aside"), file("volume1/@EP/EP_FRI"));

    fs::rename(file("journal"), place_.file("aside"));
    expect_health(4, 2);
    EXPECT_NE(health().out.find("\nDAMAGE S01  " + file("journal") + ": "), std::string::npos);
    fs::rename(place_.file("aside"), file("journal"));

    fs::create_directory(file("volume1/@EP_CHK"));
    EXPECT_NE(health().out.find("\nNOTE   S02  " + file("volume1/@EP_CHK") + ": "),
              std::string::npos);
    fs::remove(file("volume1/@EP_CHK"));
    EXPECT_EQ(health().status, 0);
    const uint8_t noise = 0xA5;
    write_file_bytes(file("journal/EP_JNL"), 20, &noise, 1);
    expect_health(4, 2);
    EXPECT_NE(health().out.find("\nDAMAGE J02  the journal: "), std::string::npos);
}

// Whoever may not read a directory does not know that something is missing in it.
TEST_F(health_run, by_a_user_who_may_not_read_is_unknown) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    EXPECT_EQ(check().status, 0);
    ASSERT_EQ(shell("chmod 711 " + place_.path() + "; chmod 644 " + state() + " " +
                    file("platform.conf") + "; chmod -R go+rX " + sample_ + "; chmod 700 " +
                    file("volume1/@EP"))
                  .status,
              0);
    const check_run seen =
        run_limited("setpriv --reuid nobody --clear-groups " TARN_CTL_PROGRAM " --conf " +
                    file("platform.conf") + " health --state " + state());
    EXPECT_EQ(seen.status, 6) << seen.out << seen.err;
    EXPECT_NE(seen.out.find("\nUNREAD X01  " + file("volume1/@EP") + ": "), std::string::npos);
    EXPECT_EQ(seen.out.find("D05"), std::string::npos);
}

TEST_F(health_run, sees_a_damaged_header_of_an_index) {
    EXPECT_EQ(check().status, 0);
    damage_it("index-header-bit");
    EXPECT_NE(health().out.find("\nDAMAGE H01  " + file("volume1/@EP/EP_FRI") + ", bytes "),
              std::string::npos);
    EXPECT_EQ(health().status, 4);
}

// Only the full check can see these.
TEST_F(health_run, reads_no_table_and_no_map) {
    EXPECT_EQ(check().status, 0);
    damage_it("table-noise");
    damage_it("map-node-bit");
    damage_it("index-block-bit");
    EXPECT_EQ(health().status, 0);
    EXPECT_EQ(check().status, 5);
    EXPECT_EQ(health().status, 5);
}

TEST_F(health_run, is_unknown_without_a_good_state_file) {
    EXPECT_EQ(health().err, "");
    expect_health(6, 3);
    EXPECT_EQ(check().status, 0);
    const std::string good = text_of(state());
    const std::string completed = field_of(good, "completed");
    const auto moved = [&](int64_t seconds) {
        const uint64_t then = number_after(completed, ":") + static_cast<uint64_t>(seconds);
        return changed_state(good, completed, "\"completed\":" + std::to_string(then));
    };
    const std::string texts[] = {
        "",
        "junk\n",
        good.substr(0, good.size() - 1),
        good.substr(0, 300),
        std::string(good).replace(good.find("clean"), 5, "cleam"),
        changed_state(good, "\"format\":1", "\"format\":2"),
        changed_state(good, field_of(good, "server"), "\"server\":\"x\""),
        changed_state(good, field_of(good, "machine"), "\"machine\":\"x\""),
        moved(-864300),
        moved(86400)};
    for (const std::string& text : texts) {
        put_state(text);
        const check_run seen = health();
        EXPECT_EQ(seen.status, 6) << text;
        EXPECT_EQ(health("--format nagios").status, 3) << text;
        EXPECT_NE(seen.out.find("The last full check"), std::string::npos) << seen.out;
    }
    put_state(moved(-863000));
    EXPECT_EQ(health().status, 0);
}

TEST_F(health_run, does_not_wait_for_a_pipe) {
    ASSERT_EQ(mkfifo(state().c_str(), 0600), 0);
    expect_health(6, 3);
    EXPECT_EQ(check().status, 32);
}

TEST_F(health_run, without_a_configuration_is_no_answer) {
    EXPECT_EQ(check().status, 0);
    fs::remove(file("platform.conf"));
    const std::string line =
        "tarnctl: the volumes of this server are unknown: its configuration cannot be read\n";
    EXPECT_EQ(health().status, 8);
    EXPECT_EQ(health().out, "");
    EXPECT_EQ(health().err, line);
    EXPECT_EQ(health("--json").status, 8);
    EXPECT_EQ(health("--format checkmk").status, 8);
    EXPECT_EQ(health("--format checkmk").out.substr(0, 2), "3 ");
    EXPECT_EQ(health("--format nagios").status, 3);
    const check_run metrics = health("--format prometheus");
    EXPECT_EQ(metrics.status, 8);
    EXPECT_NE(metrics.out.find("\ntarn_configuration_readable 0\n"), std::string::npos);
    EXPECT_NE(metrics.out.find("\ntarn_health_status 6\n"), std::string::npos);
}

TEST_F(health_run, that_cannot_be_written_is_no_answer) {
    EXPECT_EQ(check().status, 0);
    for (const char* output : {">/dev/full", ">&-"}) {
        for (const char* format : {"", "--json", "--format prometheus", "--format checkmk"}) {
            EXPECT_EQ(health(std::string(format) + " " + output).status, 8) << format << output;
        }
        EXPECT_EQ(health(std::string("--format nagios ") + output).status, 3);
    }
    EXPECT_EQ(health("--json --format nagios").status, 16);
}

// The check was made: its state is good, although nobody could read the result.
TEST_F(health_run, state_is_right_if_standard_output_is_closed) {
    for (const char* output : {">&-", ">&- 2>&-", "<&- >&- 2>&-", ">/dev/full"}) {
        fs::remove(state());
        EXPECT_EQ(check(output).status, 8) << output;
        EXPECT_EQ(health().status, 0) << output;
    }
}

TEST_F(health_run, state_is_never_written_over_what_belongs_to_the_server) {
    const auto before = everything(sample_);
    for (const char* name : {"volume1/state", "volume1/@EP/EP_TBL", "volume2/@EP/state",
                             "journal/EP_JNL", "platform.conf", "journal"}) {
        const check_run refused = run("check --quiet --state " + file(name));
        EXPECT_EQ(refused.status, 32) << name;
        EXPECT_EQ(refused.out, "Clean: nothing is wrong. Exit status 0.\n");
        EXPECT_TRUE(refused.err.starts_with("tarnctl: refused: the state is not written to " +
                                            file(name) + ": "))
            << refused.err;
    }
    EXPECT_EQ(everything(sample_), before);
    fs::create_symlink(file("volume1"), place_.file("link"));
    EXPECT_EQ(run("check --quiet --state " + place_.file("link") + "/state").status, 32);
    EXPECT_EQ(everything(sample_), before);
    EXPECT_EQ(run("check --quiet --state " + file("journal/health.json")).status, 0);
}

TEST_F(health_run, sees_a_journal_whose_history_is_cut) {
    const std::string crashed = make_sample(place_, "c", 21, " --crash --extents 500");
    sample_ = crashed;
    EXPECT_EQ(check().status, 0);
    EXPECT_EQ(health().status, 0);
    EXPECT_NE(health().out.find(": journal abnormal.\n"), std::string::npos);
    damage_it("journal-block");
    expect_health(5, 2);
    EXPECT_NE(health().out.find("\nURGENT J03  the journal, journal block "), std::string::npos)
        << health().out;
}

TEST_F(health_run, sees_a_volume_that_became_read_only) {
    const std::string reason = why_no_private_root();
    if (!reason.empty() && getenv("TARN_TESTS_SKIP_NOTHING") == nullptr) {
        GTEST_SKIP() << reason;
    }
    EXPECT_EQ(check().status, 0);
    const scratch_dir root;
    const std::string program = TARN_CTL_PROGRAM;
    const std::string directory = program.substr(0, program.rfind('/'));
    const std::string found = in_a_process_of_its_own([&]() -> std::string {
        const std::string problem = enter_private_root(
            root.path(), {{place_.path(), place_.path(), true}, {directory, directory, true}});
        return problem.empty() ? std::to_string(health().status) : problem;
    });
    EXPECT_EQ(found, "4");
}

// The service makes transactions all the time: nothing that it is writing is taken for damage.
TEST(health_of_a_running_service, is_never_bad) {
    const scratch_dir place;
    const std::string sample = place.file("s");
    const std::string ctl = TARN_CTL_PROGRAM " --conf " + sample + "/platform.conf ";
    const ran done = shell(TARN_LAB_PROGRAM " make " + sample + " --seed 21 >" +
                           place.file("made") + " && " + ctl + "check --quiet --state " +
                           place.file("state") + " && { " TARN_LAB_PROGRAM " run " + sample +
                           " --seconds 60 --rate 100000 --seed 2 >" + place.file("ran") +
                           " & run=$!; until [ -s " + sample +
                           "/lab.run ]; do sleep 0.02; done; for i in $(seq 60); do " + ctl +
                           "health --json --state " + place.file("state") + " >" +
                           place.file("out") + "; s=$?; echo -n $s; [ $s = 0 ] || cat " +
                           place.file("out") + "; done; kill $run; wait $run; }");
    EXPECT_EQ(done.text, "Clean: nothing is wrong. Exit status 0.\n" + std::string(60, '0'));
}
