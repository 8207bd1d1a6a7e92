#include <gtest/gtest.h>

#include "ctl/explain/format_match.h"

static size_t match(std::string_view format, std::string_view line) {
    return format_pattern(format).match(line);
}

TEST(explain_format, words_fit_only_themselves) {
    EXPECT_EQ(match("error, group-list loops", "error, group-list loops"), 24u);  // 23 characters
    EXPECT_EQ(match("error, group-list loops", "error, group-list loops!"), 0u);
    EXPECT_EQ(match("error, group-list loops", "error, group-list loop"), 0u);
    EXPECT_EQ(match("error, group-list loops", ""), 0u);
}

TEST(explain_format, a_number_takes_digits_and_a_sign) {
    EXPECT_NE(match("read_fd(%d)", "read_fd(-1)"), 0u);
    EXPECT_NE(match("lpa %llu", "lpa 18446744073709551615"), 0u);
    EXPECT_EQ(match("lpa %llu", "lpa "), 0u);
    EXPECT_EQ(match("lpa %llu", "lpa -"), 0u);
    EXPECT_EQ(match("lpa %llu", "lpa 12x"), 0u);
    EXPECT_EQ(match("lpa %llu", "lpa 123456789012345678901"), 0u);  // 21 digits
}

TEST(explain_format, a_hexadecimal_number_takes_letters_up_to_f) {
    EXPECT_NE(match("on-disk(%08x)", "on-disk(d815f320)"), 0u);
    EXPECT_NE(match("code(%016llx)", "code(0886255218140633)"), 0u);
    EXPECT_NE(match("tag 0x%X", "tag 0xFF"), 0u);
    EXPECT_EQ(match("on-disk(%08x)", "on-disk(d815g320)"), 0u);
    EXPECT_EQ(match("block %u", "block ff"), 0u);
}

TEST(explain_format, a_text_takes_anything_also_nothing) {
    EXPECT_NE(match("%sBAD JOURNAL", "BAD JOURNAL"), 0u);
    EXPECT_NE(match("open file %s fail", "open file a b fail fail"), 0u);
    EXPECT_NE(match("Journal %s is removed, %s", "Journal x is removed, y is removed, z"), 0u);
    EXPECT_EQ(match("open file %s fail", "open file x failed"), 0u);
}

TEST(explain_format, a_number_behind_a_text_is_looked_for_everywhere) {
    EXPECT_NE(match("%s: block %llu, lpa %llu to %llu, x", "/a: block b: block 2, lpa 5 to 6, x"),
              0u);
    EXPECT_NE(match("%s line %d: %s", "/a line b line 3: unknown key"), 0u);
    EXPECT_EQ(match("%s line %d: %s", "/a line b line c: unknown key"), 0u);
}

TEST(explain_format, a_character_and_a_percent_sign_are_one_character) {
    EXPECT_NE(match("UNKNOW cmd %c", "UNKNOW cmd z"), 0u);
    EXPECT_EQ(match("UNKNOW cmd %c", "UNKNOW cmd zz"), 0u);
    EXPECT_EQ(match("UNKNOW cmd %c", "UNKNOW cmd "), 0u);
    EXPECT_EQ(match("full at 9%%", "full at 9%"), 11u);
}

TEST(explain_format, words_of_the_format_count_and_other_text_does_not) {
    EXPECT_EQ(match("Fail to %s %s: %s", "Fail to read /a: b"), 12u);  // "Fail to " " " ": "
    EXPECT_EQ(match("Fail to read %s: %s", "Fail to read /a: b"), 16u);
}
