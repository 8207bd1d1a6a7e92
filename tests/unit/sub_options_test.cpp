#include "cli/sub_options.h"

#include <gtest/gtest.h>
#include <string>

#include "options.h"
#include "support/hex.h"
#include "support/log_capture.h"
#include "support/sample_volumes.h"
#include "support/stdout_capture.h"

class sub_options : public testing::Test {
protected:
    void SetUp() override { opt_ctx = option_record{}; }
    void TearDown() override { opt_ctx = option_record{}; }
};

TEST_F(sub_options, every_option_fills_its_field) {
    arguments run({"--path", "/p", "--oldpath", "/o", "--fripath", "/f", "--tblpath", "/t",
                   "--mappath", "/m", "--jnlpath", "/j", "--volpath", "/v", "--repair"});
    EXPECT_EQ(parse_sub_options(run.count(), run.values()), 0);
    EXPECT_EQ(opt_ctx.path, run.values()[2]);     // the argument itself
    EXPECT_EQ(opt_ctx.oldpath, run.values()[4]);  // the argument itself
    EXPECT_STREQ(opt_ctx.fripath, "/f");
    EXPECT_STREQ(opt_ctx.tblpath, "/t");
    EXPECT_STREQ(opt_ctx.mappath, "/m");
    EXPECT_STREQ(opt_ctx.jnlpath, "/j");
    EXPECT_STREQ(opt_ctx.volpath, "/v");
    EXPECT_EQ(opt_ctx.repair, 1);
    EXPECT_EQ(opt_ctx.map_kind, 0);
}

TEST_F(sub_options, unmap_and_rod_choose_the_kind_of_map_and_the_last_one_wins) {
    arguments unmap({"--unmap"});
    EXPECT_EQ(parse_sub_options(unmap.count(), unmap.values()), 0);
    EXPECT_EQ(opt_ctx.map_kind, 1);
    arguments both({"--unmap", "--rod"});
    EXPECT_EQ(parse_sub_options(both.count(), both.values()), 0);
    EXPECT_EQ(opt_ctx.map_kind, 2);
}

TEST_F(sub_options, one_dash_and_an_equals_sign_work_too) {
    arguments run({"-fripath=/f", "-rod"});
    EXPECT_EQ(parse_sub_options(run.count(), run.values()), 0);
    EXPECT_STREQ(opt_ctx.fripath, "/f");
    EXPECT_EQ(opt_ctx.map_kind, 2);
}

TEST_F(sub_options, a_scan_after_the_last_one_finds_nothing) {
    arguments run({"--fripath", "/f"});
    EXPECT_EQ(parse_sub_options(run.count(), run.values()), 0);
    opt_ctx.fripath[0] = '\0';
    EXPECT_EQ(parse_sub_options(run.count(), run.values()), 0);
    EXPECT_STREQ(opt_ctx.fripath, "");
}

TEST_F(sub_options, an_unknown_option_is_ignored) {
    arguments run({"--nonsense", "--metack", "--fripath", "/f"});
    EXPECT_EQ(parse_sub_options(run.count(), run.values()), 0);
    EXPECT_STREQ(opt_ctx.fripath, "/f");
}

TEST_F(sub_options, leftover_words_are_listed_each_followed_by_a_blank) {
    arguments run({"x", "--fripath", "/f", "yy"});
    stdout_capture out;
    EXPECT_EQ(parse_sub_options(run.count(), run.values()), -1);
    EXPECT_EQ(out.text(), "none-option argv element:x yy \n");
    EXPECT_STREQ(opt_ctx.fripath, "/f");
}

TEST_F(sub_options, a_path_of_4096_characters_is_cut_and_logged) {
    const std::string longest(4095, 'a');
    arguments fits({"--mappath", longest});
    log_capture log;
    EXPECT_EQ(parse_sub_options(fits.count(), fits.values()), 0);
    EXPECT_EQ(opt_ctx.mappath, longest);
    EXPECT_EQ(log.lines(), log_lines({}));

    arguments cut({"--mappath", longest + "b"});
    EXPECT_EQ(parse_sub_options(cut.count(), cut.values()), 0);
    EXPECT_EQ(opt_ctx.mappath, longest);
    EXPECT_EQ(log.lines(), log_lines({"ERR: copy_path(#) path is cut to 4095 characters\n"}));
}

TEST_F(sub_options, a_uuid_is_stored_and_printed_with_its_bytes_sign_extended) {
    arguments run({"--uuid", "009AffFF0123456789abcdefABCDEF7f"});
    stdout_capture out;
    EXPECT_EQ(parse_sub_options(run.count(), run.values()), 0);
    EXPECT_EQ(hex_of(opt_ctx.uuid), "00 9a ff ff 01 23 45 67 89 ab cd ef ab cd ef 7f\n");
    EXPECT_EQ(out.text(),
              "Input UUID[00ffffff9affffffffffffffff01234567ffffff89ffffffabffffffcd"
              "ffffffefffffffabffffffcdffffffef7f]\n");
}

TEST_F(sub_options, a_uuid_of_31_or_33_characters_ends_the_scan) {
    for (const size_t length : {31, 33, 0}) {
        arguments run({"--uuid", std::string(length, 'a'), "--fripath", "/f"});
        stdout_capture out;
        EXPECT_EQ(parse_sub_options(run.count(), run.values()), -1);
        EXPECT_EQ(out.text(), "UUID length must be 32\n");
        EXPECT_STREQ(opt_ctx.fripath, "");
        EXPECT_EQ(hex_of(opt_ctx.uuid), "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00\n");
    }
}

TEST_F(sub_options, a_letter_that_is_not_a_digit_ends_the_scan_and_keeps_what_was_stored) {
    memset(opt_ctx.uuid, 0x77, sizeof opt_ctx.uuid);
    arguments run({"--uuid", "1122334455G6778899aabbccddeeff00"});
    stdout_capture out;
    EXPECT_EQ(parse_sub_options(run.count(), run.values()), -1);
    EXPECT_EQ(out.text(), "UUID string has invalid char\n");
    EXPECT_EQ(hex_of(opt_ctx.uuid), "11 22 33 44 55 00 00 00 00 00 00 00 00 00 00 00\n");
}

TEST_F(sub_options, characters_adjacent_to_the_digits_are_refused) {
    for (const char bad : {'/', ':', '@', 'G', '`', 'g', ' ', '\xb0'}) {
        std::string text(32, '0');
        text[31] = bad;
        arguments run({"--uuid", text});
        stdout_capture out;
        EXPECT_EQ(parse_sub_options(run.count(), run.values()), -1);
        EXPECT_EQ(out.text(), "UUID string has invalid char\n") << bad;
    }
}
