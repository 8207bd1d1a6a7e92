// The default platform on a machine without a configuration file: its volumes, its journal's
// directory, and the service if systemd runs it.
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

#include "journal_status.h"
#include "support/sample_volumes.h"
#include "system/support/sandbox.h"

namespace fs = std::filesystem;

// A machine whose systemd knows one unit: it is active while /scratch/active is there, and the
// call that /scratch/fail-<call> names fails.
class systemd_machine : public testing::Test {
protected:
    systemd_machine() {
        box_.configure("volumes =\n");
        const std::string systemctl = box_.scratch() + "/systemctl";
        std::ofstream(systemctl) << "#!/bin/sh\n"
                                    "echo \"$*\" >>/scratch/calls\n"
                                    "test ! -e /scratch/fail-$1 || exit 1\n"
                                    "case $1 in\n"
                                    "is-active) test -e /scratch/active ;;\n"
                                    "stop) rm /scratch/active ;;\n"
                                    "start) : >/scratch/active ;;\n"
                                    "esac\n";
        fs::permissions(systemctl, fs::perms::owner_all);
    }

    // The programs of the system keep their paths; one of them is replaced by ours.
    [[nodiscard]] run_result run_one_key_check(bool systemd_runs = true) const {
        const std::string shell =
            std::string(systemd_runs ? "mkdir -p /run/systemd/system; " : "") +
            "mkdir /tmp/bin && mount --bind /usr/bin /tmp/bin && mount -t tmpfs none /usr/bin &&"
            "/tmp/bin/ln -s /tmp/bin/* /usr/bin/ &&"
            "/tmp/bin/ln -sf /scratch/systemctl /usr/bin/systemctl && exec " TARN_PROGRAM
            " --onekeycheck";
        return box_.run_program("/bin/sh", {"-c", shell}, {});
    }
    void make(const std::string& name) const { make_empty_file(box_.scratch() + "/" + name); }
    [[nodiscard]] std::string calls() const {
        std::ifstream file(box_.scratch() + "/calls");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    sandbox box_;
};

TEST_F(systemd_machine, an_active_service_is_stopped_and_started) {
    make("active");
    const run_result got = run_one_key_check();
    EXPECT_EQ(got.err, "");
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(calls(), "is-active --quiet iscsitrg\nstop iscsitrg\nstart iscsitrg\n");
    EXPECT_TRUE(fs::exists(box_.scratch() + "/active"));
}

TEST_F(systemd_machine, a_service_that_does_not_run_is_not_started) {
    const run_result got = run_one_key_check();
    EXPECT_EQ(got.err, "");
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(calls(), "is-active --quiet iscsitrg\n");
}

TEST_F(systemd_machine, systemctl_is_not_called_if_systemd_does_not_run) {
    make("active");
    const run_result got = run_one_key_check(false);
    EXPECT_EQ(got.err, "");
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(calls(), "");
}

TEST_F(systemd_machine, a_service_that_does_not_stop_fails_the_run) {
    make("active");
    make("fail-stop");
    const run_result got = run_one_key_check();
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log, std::vector<std::string>{"tarn:# failed to pause iscsi service"});
    EXPECT_EQ(calls(), "is-active --quiet iscsitrg\nstop iscsitrg\n");
}

TEST_F(systemd_machine, a_service_that_does_not_start_again_fails_the_run) {
    make("active");
    make("fail-start");
    const run_result got = run_one_key_check();
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log, std::vector<std::string>{"tarn:# failed to start iscsi service"});
    EXPECT_EQ(calls(), "is-active --quiet iscsitrg\nstop iscsitrg\nstart iscsitrg\n");
}

// The default place of the file, made in the sandbox's own /etc.
static run_result run_with_default_file(const sandbox& box, const std::string& make_file) {
    run_conditions conditions;
    conditions.without_configuration = true;
    return box.run_program("/bin/sh",
                           {"-c", "mount -t tmpfs none /etc && mkdir /etc/tarn && " + make_file +
                                      " && exec " TARN_PROGRAM " --vaaick log"},
                           conditions);
}

TEST(platform_defaults, no_file_at_the_default_place_means_the_default_journal) {
    const sandbox box;
    make_jnl(box.journal(), JNL_STATUS_BAD, {});
    EXPECT_EQ(run_with_default_file(box, "true").status, 255);
    fs::remove(box.journal());
    EXPECT_EQ(run_with_default_file(box, "true").status, 0);
}

TEST(platform_defaults, a_file_at_the_default_place_is_used) {
    const sandbox box;
    make_jnl(box.journal(), JNL_STATUS_BAD, {});
    const std::string make_file = "echo 'journal_root = /tmp' >/etc/tarn/platform.conf";
    EXPECT_EQ(run_with_default_file(box, make_file).status, 0);  // no journal there
}

TEST(platform_defaults, an_invalid_file_at_the_default_place_is_logged_and_fails) {
    const sandbox box;
    const run_result got =
        run_with_default_file(box, "echo 'journal = /tmp' >/etc/tarn/platform.conf");
    EXPECT_EQ(got.status, 255);
    ASSERT_FALSE(got.log.empty());
    EXPECT_EQ(got.log[0], "/etc/tarn/platform.conf line 1: unknown key\n");
}
