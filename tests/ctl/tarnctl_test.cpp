// The built program: exit statuses, standard output and error.
#include <gtest/gtest.h>

#include "system/support/lab_sample.h"
#include "system/support/shell.h"

// The command's own redirections stay inside the braces.
static ran tarnctl(const std::string& words) {
    std::string line = "{ " TARN_CTL_PROGRAM " ";
    line += words;
    return shell(line + "; }");
}

TEST(tarnctl, ends_with_16_after_a_wrong_command_line) {
    const ran wrong = tarnctl("check --memory 5 2>&1 >/dev/null");
    EXPECT_EQ(wrong.status, 16);
    EXPECT_EQ(wrong.text,
              "tarnctl: --memory: '5' is no size from 1M to 64G\nTry: tarnctl --help\n");
    EXPECT_EQ(tarnctl("").status, 16);
}

TEST(tarnctl, ends_with_0_after_help) {
    EXPECT_EQ(tarnctl("--help").status, 0);
    EXPECT_EQ(tarnctl("--version").text, "tarnctl " TARN_VERSION "\n");
}

TEST(tarnctl, ends_with_8_if_help_or_verdict_cannot_be_written) {
    const ran help = tarnctl("--help 2>&1 >/dev/full");
    EXPECT_EQ(help.status, 8);
    EXPECT_EQ(help.text, "tarnctl: cannot write the result: No space left on device\n");
    EXPECT_EQ(tarnctl("--conf /dev/null check >/dev/full").status, 8);
}

class tarnctl_on_a_sample : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        sample_ = new std::string(::testing::TempDir() + "ctl" + std::to_string(getpid()));
        ASSERT_EQ(tarn_lab("make " + *sample_ + " --seed 12").status, 0);
    }
    static void TearDownTestSuite() {
        EXPECT_EQ(shell("rm -r " + *sample_).status, 0);
        delete sample_;
    }
    static const std::string& sample() { return *sample_; }
    static ran check(const std::string& words) {
        return tarnctl("--conf " + *sample_ + "/platform.conf check " + words);
    }

private:
    static inline std::string* sample_ = nullptr;
};

TEST_F(tarnctl_on_a_sample, says_that_it_is_clean) {
    const ran run = check("");
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(run.text.ends_with("\n\nClean: nothing is wrong. Exit status 0.\n")) << run.text;
    EXPECT_EQ(check("--quiet").text, "Clean: nothing is wrong. Exit status 0.\n");
}

TEST_F(tarnctl_on_a_sample, prints_valid_json) {
    EXPECT_EQ(check("--json --all | python3 " TARN_VALIDATE " " TARN_SCHEMA).status, 0);
}

TEST(tarnctl_explain, prints_valid_json_whatever_is_asked) {
    const std::string valid = " | python3 " TARN_VALIDATE " " TARN_SCHEMA;
    for (const char* words : {"", "R01", "'ERR: open_file(12) open file /x fail'", "nonsense"}) {
        EXPECT_EQ(tarnctl("explain --json " + std::string(words) + valid).status, 0) << words;
    }
    EXPECT_EQ(
        shell("printf 'tarn[3]: ERR: open_file(1) open file /x fail\\njunk\\n' | " TARN_CTL_PROGRAM
              " explain --json -" +
              valid)
            .status,
        0);
}

TEST_F(tarnctl_on_a_sample, takes_the_configuration_after_the_command_too) {
    EXPECT_EQ(tarnctl("check --quiet --conf /nowhere/conf").status, 8);
}

TEST_F(tarnctl_on_a_sample, ends_with_8_and_a_line_when_the_pipe_is_closed) {
    const std::string fifo = sample() + "/fifo";
    // Descriptor 4 writes to a pipe that nobody reads any more.
    const ran closed = shell("{ mkfifo " + fifo + " && exec 3<>" + fifo + " && exec 4>" + fifo +
                             " 3>&- && " TARN_CTL_PROGRAM " --conf " + sample() +
                             "/platform.conf check --json 2>&1 >&4; }");
    EXPECT_EQ(closed.status, 8);
    EXPECT_EQ(closed.text, "tarnctl: cannot write the result: Broken pipe\n");
}

TEST_F(tarnctl_on_a_sample, ends_with_8_when_the_disk_of_the_result_is_full) {
    const ran full = check("--json 2>&1 >/dev/full");
    EXPECT_EQ(full.status, 8);
    EXPECT_EQ(full.text, "tarnctl: cannot write the result: No space left on device\n");
}

TEST(tarnctl, colors_only_a_terminal_unless_told_otherwise) {
    const std::string sample = ::testing::TempDir() + "ctlc" + std::to_string(getpid());
    ASSERT_EQ(tarn_lab("make " + sample + " --seed 12").status, 0);
    ASSERT_EQ(tarn_lab("damage " + sample + " free-count").status, 0);
    const std::string check = "--conf " + sample + "/platform.conf check";
    EXPECT_EQ(tarnctl(check).status, 3);
    EXPECT_EQ(tarnctl(check).text.find('\x1b'), std::string::npos);
    EXPECT_EQ(tarnctl(check + " --color never").text.find('\x1b'), std::string::npos);
    EXPECT_NE(tarnctl(check + " --color always").text.find("\x1b[33mCOUNT\x1b[0m  F10"),
              std::string::npos);
    EXPECT_EQ(shell("rm -r " + sample).status, 0);
}
