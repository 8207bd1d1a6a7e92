#include <gtest/gtest.h>

#include "platform.h"
#include "platform/volumes.h"

TEST(platform_volume_names, the_first_component_that_is_a_volume_s_name_counts) {
    struct {
        const char* path;
        int number;
    } const rows[] = {{"/volume1", 1},
                      {"/volume1/", 1},
                      {"/volume12/@EP/EP_TBL", 12},
                      {"volume3/x", 3},
                      {"//a//volume4//b", 4},
                      {"/volume5/volume6", 5},
                      {"/volumes/volume7", 7},
                      {"/volume0/volume8", 8},
                      {"/volume2147483647", 2147483647},
                      {"/volume2147483648", -1},
                      {"/volume4294967297", -1},
                      {"/volume18446744073709551617", -1},
                      {"/volume99999999999999999999999999", -1},
                      {"/volume01", -1},
                      {"/volume0", -1},
                      {"/volume", -1},
                      {"/volume1x", -1},
                      {"/volume 1", -1},
                      {"/volume-1", -1},
                      {"/volume+1", -1},
                      {"/xvolume1", -1},
                      {"/Volume1", -1},
                      {"/", -1},
                      {"", -1},
                      {nullptr, -1}};
    for (const auto& row : rows) {
        EXPECT_EQ(ORBAVolIDParse(row.path), row.number) << (row.path != nullptr ? row.path : "-");
    }
}

TEST(platform_volume_names, a_component_ends_at_the_given_end) {
    EXPECT_EQ(volume_number("volume123", 8), 12);
    EXPECT_EQ(volume_number("volume123", 6), -1);
    EXPECT_EQ(volume_number("volume123", 0), -1);
}

TEST(platform_volume_names, octal_escapes_of_a_mount_table_are_decoded) {
    struct {
        std::string from;
        const char* to;
    } const rows[] = {
        {"/a\\040b", "/a b"},   {"/a\\011b\\012", "/a\tb\n"}, {"/a\\134040", "/a\\040"},
        {"\\040", " "},         {"/a\\04", "/a\\04"},         {"/a\\", "/a\\"},
        {"/a\\089", "/a\\089"}, {"/plain", "/plain"},         {"", ""}};
    for (const auto& row : rows) {
        std::string text = row.from;
        decode_mount_path(text.data());
        EXPECT_STREQ(text.c_str(), row.to);
    }
}
