// The command line as a shell sees it: usage texts, wrong options, type words, uuids, stray words.
#include <algorithm>
#include <gtest/gtest.h>

#include "system/support/sandbox.h"

static const std::string red_banner = "\x1b[31mTARN_RPT: VAAI Wrong option...\n\x1b[0m";

static int lines_in(const std::string& text) {
    return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

static std::string first_line(const std::string& text) {
    return text.substr(0, text.find('\n') + 1);
}

static std::string last_line(const std::string& text) {
    return text.substr(text.rfind('\n', text.size() - 2) + 1);
}

TEST(command_line, help_prints_45_lines_and_exits_0) {
    const sandbox box;
    const run_result got = box.run({"--help"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(lines_in(got.out), 45);
    EXPECT_EQ(first_line(got.out), "Usage: tarn [OPTIONS]\n");
    EXPECT_EQ(last_line(got.out), "    --help       Print this message\n");
    EXPECT_EQ(got.err, "");
    EXPECT_EQ(got.log, std::vector<std::string>{});
}

TEST(command_line, advhelp_prints_50_lines_and_exits_0) {
    const sandbox box;
    const run_result got = box.run({"--advhelp"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(lines_in(got.out), 50);
    EXPECT_EQ(first_line(got.out), "Usage: tarn [OPTIONS]\n");
    EXPECT_EQ(last_line(got.out), "    --advhelp       Print this advanced usage message\n");
    EXPECT_EQ(got.err, "");
}

TEST(command_line, a_single_dash_works_like_two) {
    const sandbox box;
    EXPECT_EQ(box.run({"-help"}).out, box.run({"--help"}).out);
}

TEST(command_line, without_a_known_command_the_banner_and_the_usage_are_printed) {
    const sandbox box;
    const std::string usage = box.run({"--help"}).out;
    const std::vector<std::vector<std::string>> wrong = {
        {}, {"--nonsense"}, {"-x"}, {"word"}, {"--ckjnl"}, {"--vaaick"}, {"--fripath", "/x"}};
    for (const std::vector<std::string>& words : wrong) {
        const run_result got = box.run(words);
        SCOPED_TRACE(words.empty() ? "no option" : words[0]);
        EXPECT_EQ(got.status, 255);
        EXPECT_EQ(got.out, red_banner + usage);
        EXPECT_EQ(got.log, std::vector<std::string>{});
    }
}

TEST(command_line, only_the_first_option_is_the_command) {
    const sandbox box;
    const run_result got = box.run({"--vaaick", "log", "--help", "--nonsense"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, "TARN_INFO: REPLAY jnlPath doesn't exist /var/lib/tarn/EP_JNL\n");
    EXPECT_EQ(got.err,
              "tarn: unrecognized option '--help'\n"
              "tarn: unrecognized option '--nonsense'\n");
}

TEST(command_line, type_words_are_case_sensitive_and_an_unknown_one_exits_255) {
    const sandbox box;
    for (const char* command : {"--ckjnl", "--rpjnl", "--search", "--create", "--change-uuid"}) {
        for (const std::string word : {"FRI", "Tbl", "fr", ""}) {
            const run_result got = box.run({command, word});
            SCOPED_TRACE(command + (" " + word));
            EXPECT_EQ(got.status, 255);
            EXPECT_EQ(got.out, "");
            EXPECT_EQ(got.log, (std::vector<std::string>{"ERR: get_funs(#) Not define option '" +
                                                         word + "'\n"}));
        }
    }
}

TEST(command_line, each_type_word_table_accepts_only_its_own_words) {
    const sandbox box;
    for (const std::vector<std::string>& words :
         std::vector<std::vector<std::string>>{{"--ckjnl", "jnl"},
                                               {"--rpjnl", "jnl"},
                                               {"--search", "vol"},
                                               {"--create", "vol"},
                                               {"--create", "jnl"},
                                               {"--change-uuid", "map"}}) {
        const run_result got = box.run(words);
        SCOPED_TRACE(words[0]);
        EXPECT_EQ(got.status, 255);
        EXPECT_EQ(got.log, (std::vector<std::string>{"ERR: get_funs(#) Not define option '" +
                                                     words[1] + "'\n"}));
    }
}

TEST(command_line, a_stray_word_is_printed_and_exits_255) {
    const sandbox box;
    const run_result one = box.run({"--import", "x"});
    EXPECT_EQ(one.status, 255);
    EXPECT_EQ(one.out, "none-option argv element:x \n");
    const run_result two = box.run({"--freeck", "x", "--fripath", "/volume1/f", "y"});
    EXPECT_EQ(two.status, 255);
    EXPECT_EQ(two.out, "none-option argv element:x y \n");
    EXPECT_EQ(two.log, std::vector<std::string>{});
}

TEST(command_line, a_stray_word_stops_every_command_that_reads_options) {
    const sandbox box;
    for (const char* command :
         {"--ckjnl=fri", "--rpjnl=fri", "--vaaick=log", "--set-status=bad", "--startup-replay",
          "--metack", "--freeck", "--fullck", "--vaaifix", "--import", "--import-volume",
          "--finalize", "--check-map", "--ckvjnl", "--rpvjnl", "--reconstruct", "--onekeyrepair"}) {
        const run_result got = box.run({command, "stray"});
        SCOPED_TRACE(command);
        EXPECT_EQ(got.status, 255);
        EXPECT_EQ(got.out, "none-option argv element:stray \n");
        EXPECT_EQ(got.log, std::vector<std::string>{});
    }
}

TEST(command_line, a_uuid_of_the_wrong_length_is_refused) {
    const sandbox box;
    for (const size_t length : {size_t{0}, size_t{31}, size_t{33}}) {
        const run_result got = box.run({"--freeck", "--uuid=" + std::string(length, 'a')});
        EXPECT_EQ(got.status, 255);
        EXPECT_EQ(got.out, "UUID length must be 32\n");
    }
}

TEST(command_line, a_uuid_with_other_characters_is_refused) {
    const sandbox box;
    for (const char* last : {"G", "g", "-", "/", ":", "@", "`"}) {
        const run_result got = box.run({"--freeck", "--uuid", std::string(31, '0') + last});
        EXPECT_EQ(got.status, 255);
        EXPECT_EQ(got.out, "UUID string has invalid char\n") << last;
    }
}

TEST(command_line, a_valid_uuid_is_echoed_with_its_high_bytes_sign_extended) {
    const sandbox box;
    const run_result got = box.run({"--freeck", "--uuid", "0001097f809AabFF1234567890aBcDeF"});
    EXPECT_EQ(first_line(got.out),
              "Input UUID[0001097fffffff80ffffff9affffffabffffffff"
              "12345678ffffff90ffffffabffffffcdffffffef]\n");
}

TEST(command_line, the_one_key_repair_asks_for_a_volume_without_a_newline) {
    const sandbox box;
    const run_result got = box.run({"--onekeyrepair"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out, "TARN_INFO: Please assign volpath by --volpath");
    EXPECT_EQ(got.log, std::vector<std::string>{});
}

TEST(command_line, a_service_that_does_not_stop_keeps_the_one_key_check_from_running) {
    const sandbox box;
    box.configure("volumes =\nservice_pause = /bin/false\n");
    const run_result got = box.run({"--onekeycheck"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out, "");
    EXPECT_EQ(got.log, (std::vector<std::string>{"tarn:# failed to pause iscsi service"}));
}

TEST(command_line, a_service_that_does_not_start_again_fails_the_one_key_check) {
    const sandbox box;
    box.configure("volumes =\nservice_pause = /bin/true\nservice_resume = /bin/false\n");
    const run_result got = box.run({"--onekeycheck"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log, (std::vector<std::string>{"tarn:# failed to start iscsi service"}));
}

TEST(command_line, the_one_key_check_stops_the_service_with_its_name_and_reason) {
    const sandbox box;
    box.configure(
        "volumes =\n"
        "service_pause = /bin/sh /scratch/note pause\n"
        "service_resume = /bin/sh /scratch/note resume\n");
    const std::string script = "for word; do echo \"$word\"; done >>/scratch/notes\n";
    write_file_bytes(box.scratch() + "/note", 0, script.data(), script.size());
    const run_result got = box.run({"--onekeycheck"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(last_line(got.out), "TARN_INFO: One Key check has successfully completed\n");
    const std::string notes =
        "pause\niscsitrg\niSCSI service running checking maintainance procedures\n"
        "resume\niscsitrg\niSCSI service running checking maintainance procedures\n";
    const std::vector<uint8_t> written =
        file_bytes(box.scratch() + "/notes", 0, notes.size() + 1);  // a zero after the last
    EXPECT_EQ(std::string(written.begin(), written.end()), notes + '\0');
}
