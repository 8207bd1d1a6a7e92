#include "cli/commands.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "options.h"
#include "support/log_capture.h"
#include "support/sample_volumes.h"
#include "support/stdout_capture.h"

class commands : public testing::Test {
protected:
    int run(std::vector<std::string> words) {
        opt_ctx = option_record{};
        arguments run(std::move(words));
        return run_command(run.count(), run.values());
    }
    static bool is_refusal(const std::string& text) {
        return text.starts_with("\x1b[31mTARN_RPT: VAAI Wrong option...\n\x1b[0mUsage: ") &&
               text.ends_with("    --help       Print this message\n");
    }

    sample_volumes volumes_;
    log_capture log_;
};

using words = std::vector<std::string>;

TEST_F(commands, a_wrong_first_option_prints_the_red_banner_and_the_basic_usage) {
    for (const words& wrong : {words{}, words{"x"}, words{"--nonsense"}, words{"--ckjnl"},
                               words{"--set-status"}, words{"--help=x"}, words{"--ck"}, words{"-"},
                               words{"--"}, words{"--", "--help"}, words{"--fripath", "/f"}}) {
        stdout_capture out;
        EXPECT_EQ(run(wrong), -1);
        EXPECT_TRUE(is_refusal(out.text())) << out.text();
    }
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(commands, help_and_advhelp_print_their_texts) {
    for (const words& help :
         {words{"--help"}, words{"-help"}, words{"--he"}, words{"--help", "x"}}) {
        stdout_capture out;
        EXPECT_EQ(run(help), 0);
        EXPECT_TRUE(out.text().starts_with("Usage: ")) << out.text();
        EXPECT_TRUE(out.text().ends_with("    --help       Print this message\n"));
    }
    stdout_capture out;
    EXPECT_EQ(run({"--advhelp"}), 0);
    EXPECT_TRUE(out.text().ends_with("    --advhelp       Print this advanced usage message\n"));
}

TEST_F(commands, every_command_is_known_with_its_argument) {
    for (const char* name :
         {"startup-replay", "metack", "freeck", "fullck", "vaaifix", "import", "import-volume",
          "finalize", "check-map", "ckvjnl", "rpvjnl", "punch", "reconstruct", "ckvbuf", "help",
          "advhelp", "onekeycheck", "onekeyrepair"}) {
        stdout_capture out;
        (void)run({std::string("--") + name});
        EXPECT_EQ(out.text().find("Wrong option"), std::string::npos) << name;
        EXPECT_EQ(run({std::string("--") + name + "=argument"}), -1);
        EXPECT_NE(out.text().find("Wrong option"), std::string::npos) << name;
    }
    for (const char* name :
         {"ckjnl", "rpjnl", "vaaick", "set-status", "create", "change-uuid", "search"}) {
        stdout_capture out;
        (void)run({std::string("--") + name, "word"});
        EXPECT_EQ(out.text().find("Wrong option"), std::string::npos) << name;
        EXPECT_EQ(run({std::string("--") + name}), -1);
        EXPECT_NE(out.text().find("Wrong option"), std::string::npos) << name;
    }
}

TEST_F(commands, a_type_word_is_case_sensitive) {
    for (const char* option : {"--ckjnl", "--rpjnl", "--create", "--change-uuid", "--search"}) {
        log_.clear();
        EXPECT_EQ(run({option, "FRI"}), -1);
        EXPECT_EQ(log_.lines(), log_lines({"ERR: get_funs(#) Not define option 'FRI'\n"}));
    }
}

TEST_F(commands, the_argument_survives_the_scan_of_the_options_after_it) {
    stdout_capture out;
    EXPECT_EQ(run({"--ckjnl", "tbl", "--tblpath", "/nowhere/tbl"}), -1);
    EXPECT_EQ(out.text(), "TARN_INFO: CHECK TBL /nowhere/tbl\n");
}

TEST_F(commands, options_before_the_command_select_nothing) {
    stdout_capture out;
    EXPECT_EQ(run({"--tblpath", "/nowhere/tbl", "--ckjnl", "tbl"}), -1);
    EXPECT_TRUE(is_refusal(out.text()));
}

TEST_F(commands, a_stray_word_ends_a_command_that_reads_sub_options) {
    for (const char* option : {"--freeck", "--fullck", "--vaaifix", "--import", "--import-volume",
                               "--finalize", "--check-map", "--reconstruct", "--onekeyrepair",
                               "--metack", "--ckvjnl", "--rpvjnl", "--startup-replay"}) {
        stdout_capture out;
        EXPECT_EQ(run({option, "x"}), -1);
        EXPECT_EQ(out.text(), "none-option argv element:x \n") << option;
    }
    for (const char* option : {"--ckjnl", "--rpjnl", "--vaaick", "--set-status"}) {
        stdout_capture out;
        EXPECT_EQ(run({option, "fri", "x"}), -1);
        EXPECT_EQ(out.text(), "none-option argv element:x \n") << option;
    }
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(commands, a_second_command_is_an_unknown_option) {
    stdout_capture out;
    EXPECT_EQ(run({"--startup-replay", "--advhelp"}), 0);  // there is no journal
    EXPECT_EQ(out.text(), "TARN_INFO: jnlPath=" + volumes_.journal() + "\n");
}

TEST_F(commands, onekeyrepair_asks_for_a_volume_without_a_newline) {
    stdout_capture out;
    EXPECT_EQ(run({"--onekeyrepair"}), -1);
    EXPECT_EQ(out.text(), "TARN_INFO: Please assign volpath by --volpath");
    EXPECT_EQ(volumes_.service_calls(), "");
}

TEST_F(commands, onekeycheck_runs_with_the_service_paused) {
    stdout_capture out;
    EXPECT_EQ(run({"--onekeycheck"}), 0);
    EXPECT_TRUE(out.text().ends_with("TARN_INFO: One Key check has successfully completed\n"));
    EXPECT_EQ(volumes_.service_calls(),
              "pause iscsitrg iSCSI service running checking maintainance procedures\n"
              "resume iscsitrg iSCSI service running checking maintainance procedures\n");
}
