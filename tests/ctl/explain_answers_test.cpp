// What the command writes, and its exit status.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "explained.h"

static std::vector<nlohmann::json> records_of(const std::string& text) {
    std::vector<nlohmann::json> records;
    size_t begin = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        records.push_back(nlohmann::json::parse(text.substr(begin, end - begin)));
        begin = end + 1;
    }
    EXPECT_EQ(begin, text.size());
    return records;
}

TEST(explain_answers, nothing_asked_lists_the_codes) {
    const explained answer = explain_words({});
    EXPECT_EQ(answer.status, 0);
    EXPECT_EQ(answer.text,
              "R01  urgent  mapped to free extents\n"
              "J06  note    the newest transaction is torn\n");
}

TEST(explain_answers, a_code_or_its_slug_is_explained_whatever_the_case) {
    const char* const text =
        "R01, mapped-but-free, urgent\n"
        "  Means:  mapped to free extents\n"
        "  Risk:   The next allocation may overwrite them.\n"
        "  Next:   tarnctl check\n";
    for (const char* word : {"R01", "r01", "mapped-but-free", "Mapped-But-Free"}) {
        const explained answer = explain_words({word});
        EXPECT_EQ(answer.status, 0);
        EXPECT_EQ(answer.text, text);
    }
}

TEST(explain_answers, a_line_is_shown_with_its_words_broken_at_100_columns) {
    const explained answer =
        explain_words({"ERR:", "vaai_startup_replay(222)", "Journal", "In-Consistent"});
    EXPECT_EQ(answer.status, 0);
    EXPECT_EQ(answer.text,
              "ERR: vaai_startup_replay(222) Journal In-Consistent\n"
              "  Means:  The journal is marked bad by an earlier run. It is never replayed in this "
              "state, and\n"
              "          nothing was touched. The log of the earlier run has the cause.\n"
              "  Risk:   Possible, if the service starts before the journal was replayed.\n"
              "  Normal: No.\n"
              "  Next:   Do not start the service. The lines before it say why. 'tarnctl check', "
              "then step 4 of\n"
              "          repair.md.\n");
}

TEST(explain_answers, a_quoted_failure_is_explained_too) {
    const explained answer = explain_words(
        {"tarn[1]: ERR: main(171) This run is not complete, failures 2, the first: jnl read error, "
         "block_num[9]"},
        "", true);
    EXPECT_EQ(answer.status, 0);
    const auto records = records_of(answer.text);
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[1]["message"], "This run is not complete, failures %llu, the first: %s");
    EXPECT_EQ(records[1]["role"], "asked");
    EXPECT_EQ(records[2]["message"], "jnl read error, block_num[%llu]");
    EXPECT_EQ(records[2]["role"], "quoted");
    EXPECT_EQ(records[2]["text"], "jnl read error, block_num[9]");
}

TEST(explain_answers, an_unknown_text_ends_with_16_and_the_three_nearest_messages) {
    const explained answer = explain_words({"jnl chksum eror @blok 9"});
    EXPECT_EQ(answer.status, 16);
    EXPECT_TRUE(
        answer.text.starts_with("Unknown: jnl chksum eror @blok 9\n"
                                "The nearest messages are:\n"
                                "  jnl checksum error @block %llu\n"))
        << answer.text;
    EXPECT_EQ(std::count(answer.text.begin(), answer.text.end(), '\n'), 5);
}

TEST(explain_answers, an_empty_text_and_a_code_that_does_not_exist_are_unknown) {
    EXPECT_EQ(explain_words({""}).status, 16);
    EXPECT_EQ(explain_words({"Z99"}).status, 16);
    EXPECT_EQ(explain_words({"R0"}).status, 16);
}

TEST(explain_answers, a_log_shows_its_cause_and_counts_the_rest) {
    const explained answer = explain_words({"-"},
                                           "nas1 sshd[3]: hello\n"
                                           "a tarn[1]: jnl_block_read(79) jnl block all zero value "
                                           "@block 12\n"
                                           "a tarn[1]: ERR: f(1) error, group-list loops\n"
                                           "a tarn[1]: ERR: f(1) FreeList IS IN-CONSISTENT\n"
                                           "a tarn[1]: ERR: f(1) FreeList IS IN-CONSISTENT\n");
    EXPECT_EQ(answer.status, 0);
    EXPECT_EQ(
        answer.text,
        "The first error, line 3 of the log, is the cause:\n"
        "a tarn[1]: ERR: f(1) error, group-list loops\n"
        "  Means:  The list of groups that have free extents comes back to itself, or its end "
        "is open after a\n"
        "          rebuild.\n"
        "  Risk:   Possible. The service may allocate an extent that is in use, or lose free "
        "space.\n"
        "  Normal: No.\n"
        "  Next:   Do not start the service. 'tarnctl check', then step 8 of repair.md.\n"
        "The other messages, each with its number of lines and its first line:\n"
        "        1  line 2: jnl block all zero value @block %llu  (also occurs where nothing "
        "is wrong)\n"
        "        2  line 4: FreeList IS IN-CONSISTENT\n"
        "Lines: 5, of other programs: 1\n");
}

TEST(explain_answers, a_log_of_several_failed_runs_says_how_to_see_one) {
    const std::string text = explain_words({"-"},
                                           "a tarn[7]: ERR: f(1) Journal In-Consistent\n"
                                           "a tarn[9]: ERR: f(1) Journal In-Consistent\n")
                                 .text;
    EXPECT_TRUE(
        text.ends_with("Errors come from 2 runs. For the last one alone: journalctl _PID=9 "
                       "| tarnctl explain -\n"
                       "Lines: 2, of other programs: 0\n"))
        << text;
    EXPECT_EQ(explain_words({"-"}, "a tarn[7]: ERR: f(1) Journal In-Consistent\n")
                  .text.find("Errors come from"),
              std::string::npos);
}

TEST(explain_answers, an_answer_that_cannot_be_written_ends_with_8) {
    for (const bool json : {false, true}) {
        explain_request request;
        request.words = {"error, group-list loops"};
        request.json = json;
        request.out = fopen("/dev/full", "w");
        EXPECT_EQ(explain(request), 8);
        fclose(request.out);
    }
}

TEST(explain_answers, an_input_that_cannot_be_read_ends_with_8) {
    explain_request request;
    request.words = {"-"};
    request.json = true;
    request.in = fopen("/tmp", "r");  // a directory opens, and cannot be read
    char* made = nullptr;
    size_t length = 0;
    request.out = open_memstream(&made, &length);
    EXPECT_EQ(explain(request), 8);
    fclose(request.out);
    fclose(request.in);
    const auto records = records_of({made, length});
    free(made);
    EXPECT_EQ(records.back()["complete"], false);
    EXPECT_EQ(records.back()["verdict"], "unread");
}

TEST(explain_answers, a_log_without_an_error_says_so) {
    const explained answer =
        explain_words({"-"}, "tarn: vaai_startup_replay(195) Start to replaying Journal\n");
    EXPECT_EQ(answer.status, 0);
    EXPECT_EQ(answer.text,
              "The other messages, each with its number of lines and its first line:\n"
              "        1  line 1: Start to replaying Journal  (also occurs where nothing is "
              "wrong)\n"
              "No line of this log reports a problem by itself.\n"
              "Lines: 1, of other programs: 0\n");
}

TEST(explain_answers, a_log_without_a_known_message_ends_with_16) {
    EXPECT_EQ(explain_words({"-"}, "").status, 16);
    EXPECT_EQ(explain_words({"-"}, "nas1 sshd[3]: hello\n").status, 16);
    const explained answer = explain_words({"-"}, "nas1 tarn[3]: never heard of\n");
    EXPECT_EQ(answer.status, 16);
    EXPECT_TRUE(answer.text.starts_with("Unknown: never heard of\n")) << answer.text;
}

TEST(explain_answers, lines_that_were_pasted_together_are_a_log) {
    const explained answer =
        explain_words({"ERR: f(1) error, group-list loops\nERR: f(1) FreeList IS IN-CONSISTENT\n"});
    EXPECT_EQ(answer.status, 0);
    EXPECT_TRUE(answer.text.starts_with("The first error, line 1 of the log, is the cause:\n"));
    EXPECT_TRUE(answer.text.ends_with("Lines: 2, of other programs: 0\n"));
}

TEST(explain_answers, json_begins_with_start_and_ends_with_summary) {
    const struct {
        std::vector<std::string> words;
        int status;
        const char* verdict;
    } cases[] = {{{}, 0, "explained"},
                 {{"R01"}, 0, "explained"},
                 {{"error, group-list loops"}, 0, "explained"},
                 {{"nothing like it"}, 16, "unknown"},
                 {{"-"}, 16, "unknown"}};
    for (const auto& one : cases) {
        const explained answer = explain_words(one.words, "", true);
        EXPECT_EQ(answer.status, one.status);
        const auto records = records_of(answer.text);
        ASSERT_GE(records.size(), 2u);
        EXPECT_EQ(records.front()["record"], "start");
        EXPECT_EQ(records.front()["schema"], 1);
        EXPECT_EQ(records.back()["record"], "summary");
        EXPECT_EQ(records.back()["exit"], one.status);
        EXPECT_EQ(records.back()["verdict"], one.verdict);
    }
}

TEST(explain_answers, json_has_the_codes_and_the_nearest_messages) {
    const auto codes = records_of(explain_words({}, "", true).text);
    ASSERT_EQ(codes.size(), 4u);
    EXPECT_EQ(codes[1]["code"], "R01");
    EXPECT_EQ(codes[1]["severity"], "urgent");
    EXPECT_EQ(codes[2]["code"], "J06");
    const auto unknown = records_of(explain_words({"nothing like it"}, "", true).text);
    ASSERT_EQ(unknown.size(), 3u);
    EXPECT_EQ(unknown[1]["record"], "unknown");
    EXPECT_EQ(unknown[1]["text"], "nothing like it");
    EXPECT_EQ(unknown[1]["nearest"].size(), 3u);
}

TEST(explain_answers, json_of_a_log_has_a_record_for_each_message) {
    const auto records = records_of(explain_words({"-"},
                                                  "ERR: f(1) error, group-list loops \xFF\"\\\n"
                                                  "ERR: f(1) open file \xFF\"\\ fail\n"
                                                  "ERR: f(1) open file /j/EP_JNL fail\n"
                                                  "ERR: f(1) open file /k/EP_JNL fail\n",
                                                  true)
                                        .text);
    ASSERT_EQ(records.size(), 5u);
    EXPECT_EQ(records[1]["role"], "cause");
    EXPECT_EQ(records[1]["text"], "ERR: f(1) open file ?\"\\ fail");
    EXPECT_EQ(records[1]["line"], 2);
    EXPECT_EQ(records[1]["at_risk"], "none");
    EXPECT_EQ(records[2]["role"], "harmless");
    EXPECT_EQ(records[2]["line"], 3);
    EXPECT_EQ(records[2]["count"], 2);
    EXPECT_EQ(records[3]["record"], "log");
    EXPECT_EQ(records[3]["lines"], 4);
    EXPECT_EQ(records[3]["unknown"], 1);
    EXPECT_EQ(records[3]["first_unknown"]["line"], 1);
}
