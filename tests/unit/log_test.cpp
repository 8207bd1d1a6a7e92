#include "store/log.h"

#include <gtest/gtest.h>
#include <string>

static std::string shown(const char* name, size_t size = 64) {
    std::string out(size, '#');
    EXPECT_EQ(log_text(name, out.data(), size), out.data());
    return out.c_str();
}

TEST(log_text, keeps_a_plain_name_byte_for_byte) {
    EXPECT_EQ(shown("/volume1/@EP/a b\\x0a~\xc3\xa9%s"), "/volume1/@EP/a b\\x0a~\xc3\xa9%s");
    EXPECT_EQ(shown(""), "");
}

TEST(log_text, shows_control_bytes_in_hexadecimal) {
    EXPECT_EQ(shown("a\nb\tc\x1b[31m\x7f\x1f"), "a\\x0ab\\x09c\\x1b[31m\\x7f\\x1f");
}

TEST(log_text, of_no_name_says_so) {
    EXPECT_EQ(shown(nullptr), "(null)");
}

TEST(log_text, is_cut_to_fit_between_two_bytes_of_the_name) {
    EXPECT_EQ(shown("abcdef", 4), "abc");
    EXPECT_EQ(shown("ab\ncd", 7), "ab\\x0a");
    EXPECT_EQ(shown("ab\ncd", 6), "ab");
    EXPECT_EQ(shown("a", 1), "");
}

TEST(log_text, a_shown_name_has_room_for_the_longest_path) {
    EXPECT_EQ(std::string(shown_name(std::string(4095, '\n').c_str()).text).size(), 4u * 4095);
}
