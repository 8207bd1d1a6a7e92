#include "store/log.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/mask.h"

static std::string escaped(const std::string& text, size_t size) {
    std::string out(size + 1, '#');
    log_escape(text.c_str(), out.data(), size);
    EXPECT_EQ(out[size], '#');  // nothing is written after its room
    out.resize(out.find('\0'));
    return out;
}

TEST(log_escape, keeps_plain_text_byte_for_byte) {
    const std::string text = "/volume1/@iSCSITrg/LUN 1/L\xc3\xbcn_Extent_0 (100 %)";
    EXPECT_EQ(escaped(text, 256), text);
    EXPECT_EQ(escaped("", 1), "");
}

TEST(log_escape, shows_control_bytes_in_hexadecimal) {
    EXPECT_EQ(escaped("a\nb\tc\x1b[31md\x7f", 256), "a\\x0ab\\x09c\\x1b[31md\\x7f");
}

TEST(log_escape, is_cut_without_splitting_an_escape) {
    EXPECT_EQ(escaped("abcdef", 4), "abc");
    EXPECT_EQ(escaped("a\nb", 5), "a");
    EXPECT_EQ(escaped("a\nb", 6), "a\\x0a");
}

static std::vector<std::string> sunk;

static void sink(const char* line) {
    sunk.emplace_back(line);
}

TEST(tarn_log, a_sink_gets_each_line_in_place_of_the_system_log) {
    const log_capture log;
    log_sink = sink;
    log_err_as("load_map", "Fail to load MAP %s\n", "LUN\n_Extent_1\n");
    tarn_log("%s", "");
    log_sink = nullptr;
    EXPECT_EQ(log.lines(), log_lines({}));
    tarn_log("after\n");
    EXPECT_EQ(log.lines(), log_lines({"after\n"}));
    ASSERT_EQ(sunk.size(), 2u);
    EXPECT_EQ(mask_line_number(sunk[0]),
              "ERR: load_map(#) Fail to load MAP LUN\\x0a_Extent_1\\x0a\n");
    EXPECT_EQ(sunk[1], "");
}

TEST(tarn_log, a_line_that_is_cut_keeps_its_line_end) {
    sunk.clear();
    log_sink = sink;
    tarn_log("%s\n", std::string(12286, 'a').c_str());    // as long as fits
    tarn_log("%s\n", std::string(4096, '\x01').c_str());  // each shown as four bytes
    tarn_log("%s\n", std::string(20000, 'a').c_str());    // its end is cut off too
    log_sink = nullptr;
    ASSERT_EQ(sunk.size(), 3u);
    EXPECT_EQ(sunk[0], std::string(12286, 'a') + "\n");
    std::string shown;
    for (int i = 0; i < 3071; i++) {
        shown += "\\x01";
    }
    EXPECT_EQ(sunk[1], shown + "\n");
    EXPECT_EQ(sunk[2], std::string(12287, 'a'));
}

TEST(tarn_log, escapes_every_control_byte_but_the_message_s_own_line_end) {
    const log_capture log;
    tarn_log("Fail to load MAP %s\n", "LUN\n_Extent_1\n");
    tarn_log("no line end %s", "%s\x1b");
    tarn_log("%s", "");
    EXPECT_EQ(log.lines(),
              log_lines({"Fail to load MAP LUN\\x0a_Extent_1\\x0a\n", "no line end %s\\x1b", ""}));
}
