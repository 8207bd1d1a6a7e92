// The command line of the built program: what it prints, logs and exits with.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "journal_status.h"
#include "support/sample_volumes.h"
#include "system/support/sandbox.h"
#include "system/support/tree.h"

using log_text = std::vector<std::string>;

TEST(command_line, a_wrong_first_option_exits_255_with_the_red_banner) {
    const sandbox box;
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{}, {"--nonsense"}, {"--search"}, {"word"}}) {
        const run_result got = box.run(words);
        EXPECT_EQ(got.status, 255);
        EXPECT_TRUE(
            got.out.starts_with("\x1b[31mTARN_RPT: VAAI Wrong option...\n\x1b[0m"
                                "Usage: tarn [OPTIONS]\n  OPTIONS are:\n"))
            << got.out;
        EXPECT_TRUE(got.out.ends_with("    --help       Print this message\n"));
        EXPECT_EQ(got.log, log_text{});
    }
}

TEST(command_line, both_usage_texts_exit_0) {
    const sandbox box;
    const run_result help = box.run({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(help.out.starts_with("Usage: tarn [OPTIONS]\n"));
    const run_result advanced = box.run({"-advhelp"});
    EXPECT_EQ(advanced.status, 0);
    EXPECT_TRUE(advanced.out.ends_with("    --advhelp       Print this advanced usage message\n"));
}

TEST(command_line, a_stray_word_is_shown_and_exits_255) {
    const sandbox box;
    const run_result got = box.run({"--import", "x"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out, "none-option argv element:x \n");
    EXPECT_EQ(got.log, log_text{});
}

TEST(command_line, a_uuid_of_another_length_or_with_another_letter_exits_255) {
    const sandbox box;
    const std::string digits(31, 'a');
    for (const std::string& uuid : {digits, digits + "aa"}) {
        const run_result got = box.run({"--freeck", "--uuid", uuid});
        EXPECT_EQ(got.status, 255);
        EXPECT_EQ(got.out, "UUID length must be 32\n");
    }
    const run_result got = box.run({"--freeck", "--uuid", digits + "G"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out, "UUID string has invalid char\n");
}

TEST(command_line, a_type_word_in_upper_case_is_unknown) {
    const sandbox box;
    const run_result got = box.run({"--ckjnl", "FRI"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out, "");
    EXPECT_EQ(got.log, (log_text{"ERR: get_funs(#) Not define option 'FRI'\n"}));
}

TEST(command_line, onekeyrepair_without_a_volume_prints_its_hint_without_a_line_end) {
    const sandbox box;
    const run_result got = box.run({"--onekeyrepair"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out, "TARN_INFO: Please assign volpath by --volpath");
}

// A sandbox with one sound volume, and a journal that brings one entry of its table.
static void make_replayable(const sandbox& box) {
    make_sample_volume(box.volume(1), 0x11);
    make_jnl(box.journal(), JNL_STATUS_ABNORMAL, {tbl_block(uuid_of(0x11), 5, 0x8003)});
}

TEST(command_line, report_lines_never_reach_a_metadata_file_when_the_output_is_closed) {
    for (const input_kind input : {input_kind::empty, input_kind::closed}) {
        const sandbox box;
        make_replayable(box);
        const auto before = tree_of(box.volume(1));
        run_conditions conditions;
        conditions.input = input;
        conditions.output = output_kind::closed;
        conditions.errors = output_kind::closed;
        const std::vector<std::string> check = {"--metack",
                                                "--fripath",
                                                "/volume1/@EP/EP_FRI",
                                                "--tblpath",
                                                "/volume1/@EP/EP_TBL",
                                                "--jnlpath",
                                                "/var/lib/tarn/EP_JNL"};
        const run_result got = box.run(check, conditions);
        // Descriptor 0 is never a file: with standard input closed, the first file does not open.
        EXPECT_EQ(got.status, input == input_kind::closed ? 255 : 0);
        EXPECT_EQ(tree_of(box.volume(1)), before);
        EXPECT_EQ(jnl_status_of(box.journal()), JNL_STATUS_ABNORMAL);
    }
}

TEST(command_line, a_closed_output_does_not_stop_a_replay) {
    for (const output_kind kind : {output_kind::closed, output_kind::broken_pipe}) {
        const sandbox box;
        make_replayable(box);
        run_conditions conditions;
        conditions.output = kind;
        conditions.errors = kind;
        const run_result got = box.run({"--startup-replay"}, conditions);
        EXPECT_EQ(got.status, 0);
        EXPECT_EQ(got.signal, 0);
        EXPECT_EQ(tbl_word_of(box.volume(1) + "/@EP/EP_TBL", 5), 0x8003);
        EXPECT_FALSE(file_exists(box.journal()));
    }
}
