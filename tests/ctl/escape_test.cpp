// Names with any bytes, in text and on a command line; paragraphs of 100 columns.
#include "ctl/text/escape.h"

#include <gtest/gtest.h>

#include "ctl/text/paragraph.h"
#include "system/support/shell.h"

TEST(shown, keeps_what_a_terminal_can_show) {
    EXPECT_EQ(shown("LUN_7 a'b\"c"), "LUN_7 a'b\"c");
    EXPECT_EQ(shown("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80"),
              "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80");
}

TEST(shown, escapes_control_characters_and_line_ends) {
    EXPECT_EQ(shown("a\nb\rc\td\x1b[31me\x7f"), "a\\nb\\rc\\td\\x1b[31me\\x7f");
    EXPECT_EQ(shown(std::string_view("\0", 1)), "\\x00");
    EXPECT_EQ(shown("a\\nb"), "a\\\\nb");
}

TEST(shown, escapes_marks_that_are_not_seen_or_turn_a_line_around) {
    EXPECT_EQ(shown("a\xe2\x80\xae"
                    "b\xc2\x85\xef\xbb\xbf"),
              "a\\u{202e}b\\u{0085}\\u{feff}");
}

TEST(shown, escapes_bytes_that_are_no_utf_8) {
    EXPECT_EQ(shown("a\xff"
                    "b"),
              "a\\xffb");
    EXPECT_EQ(shown("\xc3"), "\\xc3");                             // cut short
    EXPECT_EQ(shown("\xc0\xaf"), "\\xc0\\xaf");                    // longer than it needs
    EXPECT_EQ(shown("\xe0\x80\xaf"), "\\xe0\\x80\\xaf");           // the same
    EXPECT_EQ(shown("\xed\xa0\x80"), "\\xed\\xa0\\x80");           // half of a pair
    EXPECT_EQ(shown("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");  // past the last character
    EXPECT_EQ(shown("\x80"), "\\x80");
}

TEST(shell_word, leaves_plain_paths_alone_and_quotes_the_rest) {
    EXPECT_EQ(shell_word("/volume1/@EP/EP_TBL"), "/volume1/@EP/EP_TBL");
    EXPECT_EQ(shell_word("/v 1/$(x)"), "'/v 1/$(x)'");
    EXPECT_EQ(shell_word(""), "''");
    EXPECT_EQ(shell_word("it's"), "$'it\\'s'");
    EXPECT_EQ(shell_word("a\nb\\\xff"), "$'a\\x0ab\\\\\\xff'");
}

TEST(shell_word, bash_reads_the_same_bytes) {
    for (const std::string word : {"it's \\ a `b` $c", "a\tb\xffz", "*", "x\xc3\xa4"}) {
        EXPECT_EQ(shell("bash <<'END'\nprintf %s " + shell_word(word) + "\nEND\n").text, word);
    }
}

TEST(paragraph, breaks_between_words_at_100_columns) {
    const std::string a(40, 'a');
    const std::string b(47, 'b');  // 11 + 40 + 1 + 47 = 99, and 1 more makes 100
    EXPECT_EQ(paragraph("head of it ", a + " " + b + "b end"),
              "head of it " + a + " " + b + "b\n" + std::string(11, ' ') + "end\n");
    EXPECT_EQ(paragraph("head of it ", a + " " + b + "bb"),
              "head of it " + a + "\n" + std::string(11, ' ') + b + "bb\n");
}

TEST(paragraph, keeps_a_long_word_whole) {
    const std::string path(150, 'p');
    EXPECT_EQ(paragraph("  ", "a " + path + " b"), "  a\n  " + path + "\n  b\n");
    EXPECT_EQ(paragraph("  ", ""), "  \n");
}

TEST(paragraph, counts_characters_and_not_bytes) {
    std::string wide;
    for (int i = 0; i < 98; i++) {
        wide += "\xc3\xa4";
    }
    EXPECT_EQ(paragraph("", wide + " x"), wide + " x\n");
    EXPECT_EQ(paragraph("", wide + " xx"), wide + "\nxx\n");
}

TEST(append_unbroken, takes_the_end_of_the_last_line_or_a_line_of_its_own) {
    std::string lines = "first\n" + std::string(80, 'x') + "\n";
    append_unbroken(&lines, "Next: " + std::string(11, 'y'), 4);
    EXPECT_EQ(lines, "first\n" + std::string(80, 'x') + "   Next: " + std::string(11, 'y') + "\n");
    lines = std::string(80, 'x') + "\n";
    append_unbroken(&lines, "Next: " + std::string(12, 'y'), 4);
    EXPECT_EQ(lines, std::string(80, 'x') + "\n    Next: " + std::string(12, 'y') + "\n");
}

TEST(paragraph, is_as_narrow_as_the_terminal_from_40_to_100_columns) {
    const std::string words = std::string(29, 'a') + " " + std::string(29, 'b');  // 59 columns
    set_text_columns(59);
    EXPECT_EQ(paragraph("", words), words + "\n");
    set_text_columns(58);
    EXPECT_EQ(paragraph("", words), std::string(29, 'a') + "\n" + std::string(29, 'b') + "\n");
    std::string lines = words.substr(0, 29) + "\n";
    append_unbroken(&lines, std::string(26, 't'), 4);
    EXPECT_EQ(lines, words.substr(0, 29) + "   " + std::string(26, 't') + "\n");
    lines = words.substr(0, 29) + "\n";
    append_unbroken(&lines, std::string(27, 't'), 4);
    EXPECT_EQ(lines, words.substr(0, 29) + "\n    " + std::string(27, 't') + "\n");

    set_text_columns(1);
    EXPECT_EQ(paragraph("", words.substr(0, 35) + " abcd"), words.substr(0, 35) + " abcd\n");
    set_text_columns(1000);
    EXPECT_EQ(paragraph("", words + " " + words),
              words + " " + words.substr(0, 29) + "\n" + words.substr(30) + "\n");
    set_text_columns(TEXT_COLUMNS);
}
