#include "cli/usage.h"

#include <algorithm>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>

#include "support/scratch_file.h"
#include "support/stdout_capture.h"

// The output of the system's own cksum program for a text: "checksum length".
static std::string cksum_of(const std::string& text) {
    const scratch_dir dir;
    write_file_bytes(dir.file("text"), 0, text.data(), text.size());
    FILE* stream = popen(("cksum < " + dir.file("text")).c_str(), "r");
    char line[64] = {};
    EXPECT_NE(fgets(line, sizeof line, stream), nullptr);
    pclose(stream);
    return line;
}

static long line_count(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

TEST(usage, the_basic_text_has_its_45_lines) {
    stdout_capture out;
    print_usage("tarn");
    const std::string text = out.text();
    EXPECT_EQ(line_count(text), 45);
    EXPECT_TRUE(text.starts_with("Usage: tarn [OPTIONS]\n  OPTIONS are:\n    --ckjnl      [fri|"));
    EXPECT_TRUE(text.ends_with("\n    --help       Print this message\n")) << text;
    EXPECT_EQ(cksum_of(text), "3953060895 2736\n");  // of the documented lines
}

TEST(usage, the_advanced_text_has_its_50_lines) {
    stdout_capture out;
    print_advanced_usage("tarn");
    const std::string text = out.text();
    EXPECT_EQ(line_count(text), 50);
    EXPECT_TRUE(
        text.starts_with("Usage: tarn [OPTIONS]\n  OPTIONS are:\n    --ckvjnl        Check"));
    EXPECT_TRUE(text.ends_with("\n    --advhelp       Print this advanced usage message\n"));
    EXPECT_EQ(cksum_of(text), "2682539411 3359\n");  // of the documented lines
}

TEST(usage, the_first_line_contains_the_name_of_the_invocation) {
    stdout_capture out;
    print_usage("another-name");
    EXPECT_TRUE(out.text().starts_with("Usage: another-name [OPTIONS]\n"));
}
