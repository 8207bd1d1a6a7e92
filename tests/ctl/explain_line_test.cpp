#include <gtest/gtest.h>

#include "ctl/explain/log_line.h"

// The message, the function and whether the line is the program's, as one text.
static std::string parsed(std::string_view line) {
    const log_line made = parse_log_line(line);
    return made.text + "|" + made.function + "|" + (made.from_program ? "ours" : "anybody's");
}

TEST(explain_line, what_the_system_log_and_the_program_put_in_front_is_cut_off) {
    const char* const ours = "read_fd(-1)|tarn_read_data_node|ours";
    EXPECT_EQ(parsed("ERR: tarn_read_data_node(38) read_fd(-1)"), ours);
    EXPECT_EQ(parsed("tarn[4711]: ERR: tarn_read_data_node(38) read_fd(-1)"), ours);
    EXPECT_EQ(parsed("tarn: ERR: tarn_read_data_node(38) read_fd(-1)"), ours);
    EXPECT_EQ(parsed("Nov 22 03:11:08 nas1 tarn[4711]: ERR: tarn_read_data_node(38) read_fd(-1)"),
              ours);
    EXPECT_EQ(parsed("<11>1 2026-11-22T03:11:08Z nas1 tarn 4711 - - ERR: tarn_read_data_node(38) "
                     "read_fd(-1)\n"),
              ours);
}

TEST(explain_line, a_line_that_reports_no_failure_has_only_the_function_in_front) {
    const char* const ours = "jnl block all zero value @block 12|jnl_block_read|ours";
    EXPECT_EQ(parsed("jnl_block_read(79) jnl block all zero value @block 12"), ours);
    EXPECT_EQ(parsed("Nov 22 03:11:08 nas1 tarn[4711]: jnl_block_read(79) jnl block all zero "
                     "value @block 12"),
              ours);
}

TEST(explain_line, a_function_behind_an_unknown_front_is_found) {
    EXPECT_EQ(parsed("22/11 nas1 tarn/4711: jnl_block_read(79) jnl block all zero value @block 12"),
              "jnl block all zero value @block 12|jnl_block_read|anybody's");
}

TEST(explain_line, a_service_message_has_the_programs_name_and_a_line) {
    const char* const ours = "failed to pause iscsi service||ours";
    EXPECT_EQ(parsed("tarn:20 failed to pause iscsi service"), ours);
    EXPECT_EQ(parsed("nas1 tarn[4711]: tarn:20 failed to pause iscsi service"), ours);
    EXPECT_EQ(parsed("nas1 tarn:20 failed to pause iscsi service"), ours);
}

TEST(explain_line, a_line_of_the_terminal_keeps_its_front) {
    EXPECT_EQ(parsed("TARN_INFO:     lea(756), lpa(1048)"), "TARN_INFO: lea(756), lpa(1048)||ours");
    EXPECT_EQ(parsed("\x1b[31mTARN_RPT: Invalid entry count\n\x1b[0m"),
              "TARN_RPT: Invalid entry count||ours");
    EXPECT_EQ(parsed("check.sh: TARN_INFO: FreeList IS CONSISTENT"),
              "TARN_INFO: FreeList IS CONSISTENT||ours");
}

TEST(explain_line, a_line_of_another_program_is_left_as_it_is) {
    EXPECT_EQ(parsed("nas1 kernel: sd 0:0:0:0: [sda] tag#0 failed"),
              "nas1 kernel: sd 0:0:0:0: [sda] tag#0 failed||anybody's");
    EXPECT_EQ(parsed("nas1 systemd[1]: tarn-startup-replay.service: Failed"),
              "nas1 systemd[1]: tarn-startup-replay.service: Failed||anybody's");
    EXPECT_EQ(parsed("nas1 captarn[7]: hello"), "nas1 captarn[7]: hello||anybody's");
    EXPECT_EQ(parsed(""), "||anybody's");
    EXPECT_EQ(parsed("   \t "), "||anybody's");
}

TEST(explain_line, a_front_that_is_cut_or_has_no_number_is_none) {
    EXPECT_EQ(parsed("ERR: tarn_read_data_node() read_fd(-1)"),
              "ERR: tarn_read_data_node() read_fd(-1)||anybody's");
    EXPECT_EQ(parsed("tarn[4711 ERR"), "tarn[4711 ERR||anybody's");
    EXPECT_EQ(parsed("tarn["), "tarn[||anybody's");
    EXPECT_EQ(parsed("name(3)"), "name(3)||anybody's");
}

TEST(explain_line, what_is_shown_is_text_without_control_characters) {
    EXPECT_EQ(clean_line(std::string("a\0b\x1b]0;x\x07y\x7f", 11)), "a b ]0;x y");
    EXPECT_EQ(clean_line("  a \t\r\n b  "), "a b");
    EXPECT_EQ(clean_line("caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"),
              "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80");
}

TEST(explain_line, bytes_that_are_no_text_become_question_marks) {
    EXPECT_EQ(clean_line("a\xFF\x80z"), "a??z");
    EXPECT_EQ(clean_line("\xC3"), "?");                 // cut
    EXPECT_EQ(clean_line("\xC0\xAF"), "??");            // too long for its character
    EXPECT_EQ(clean_line("\xE0\x80\xAF"), "???");       // the same
    EXPECT_EQ(clean_line("\xED\xA0\x80"), "???");       // half of a pair
    EXPECT_EQ(clean_line("\xF4\x90\x80\x80"), "????");  // beyond the last character
}

TEST(explain_line, characters_that_are_not_seen_become_question_marks) {
    EXPECT_EQ(clean_line("\xC2\x9B"
                         "31m"),
              "?31m");                                        // begins a colour
    EXPECT_EQ(clean_line("a\xE2\x80\xAEz"), "a?z");           // turns the order around
    EXPECT_EQ(clean_line("a\\x0a C:\\ z"), "a\\x0a C:\\ z");  // a backslash stays
}

TEST(explain_line, a_line_is_cut_at_its_limit) {
    EXPECT_EQ(clean_line(std::string(LOG_LINE_MAX + 1, 'a')), std::string(LOG_LINE_MAX, 'a'));
}
