// Every row of the catalogue can be shown, and its next command exists.
#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "cli/usage.h"
#include "ctl/options.h"
#include "support/stdout_capture.h"
#include "view/findings.h"

static std::string usage_of_tarn() {
    stdout_capture capture;
    print_usage("tarn");
    print_advanced_usage("tarn");
    return capture.text();
}

static std::vector<std::string> words_of(const std::string& command) {
    std::istringstream words(command);
    return {std::istream_iterator<std::string>(words), {}};
}

// A command of tarn and its options are words of the usage texts.
static void expect_tarn_knows(const std::vector<std::string>& words, const std::string& usage) {
    std::string bare = usage;
    std::replace_if(
        bare.begin(), bare.end(), [](char at) { return at == '[' || at == ']'; }, ' ');
    const std::vector<std::string> known = words_of(bare);
    ASSERT_GE(words.size(), 2u);
    ASSERT_TRUE(words[1].starts_with("--"));
    for (const std::string& word : words) {
        if (word.starts_with("-")) {
            EXPECT_NE(std::find(known.begin(), known.end(), word), known.end()) << word;
        }
    }
}

// A command of tarnctl is parsed; a code to be explained exists.
static void expect_tarnctl_knows(std::vector<std::string> words) {
    std::vector<const char*> arguments;
    for (std::string& word : words) {
        word = word == "VOLUME" ? "/volume1" : word;
        arguments.push_back(word.c_str());
    }
    const parsed_options parsed =
        parse_options(static_cast<int>(arguments.size()), arguments.data());
    EXPECT_NE(parsed.options.command, ctl_command::none) << parsed.err;
    if (parsed.options.command == ctl_command::explain) {
        ASSERT_EQ(words.size(), 3u);
        EXPECT_NE(finding_row_named(words[2].c_str()), nullptr) << words[2];
    }
}

TEST(catalogue, stands_in_the_order_of_the_codes) {
    ASSERT_EQ(FINDING_ROW_COUNT, 62u);
    for (size_t i = 0; i < FINDING_ROW_COUNT; i++) {
        EXPECT_EQ(static_cast<size_t>(FINDING_ROWS[i].code), i);
        EXPECT_EQ(finding_row_of(FINDING_ROWS[i].code), &FINDING_ROWS[i]);
        EXPECT_EQ(finding_row_named(FINDING_ROWS[i].name), &FINDING_ROWS[i]);
    }
    EXPECT_STREQ(finding_row_of(finding_code::H01)->name, "H01");
    EXPECT_STREQ(finding_row_of(finding_code::F12)->name, "F12");
    EXPECT_STREQ(finding_row_of(finding_code::M10)->name, "M10");
    EXPECT_STREQ(finding_row_of(finding_code::R04)->name, "R04");
    EXPECT_STREQ(finding_row_of(finding_code::J08)->name, "J08");
    EXPECT_STREQ(finding_row_of(finding_code::X01)->name, "X01");
    EXPECT_EQ(finding_row_named("Z99"), nullptr);
    EXPECT_EQ(finding_row_named(""), nullptr);
}

TEST(catalogue, has_whole_sentences_for_every_code) {
    std::set<std::string> slugs;
    for (size_t i = 0; i < FINDING_ROW_COUNT; i++) {
        const finding_row& row = FINDING_ROWS[i];
        SCOPED_TRACE(row.name);
        EXPECT_TRUE(slugs.insert(row.slug).second);
        EXPECT_EQ(std::string(row.slug).find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-"),
                  std::string::npos);
        const std::string sentence = row.sentence;
        const std::string risk = row.risk;
        ASSERT_FALSE(sentence.empty() || risk.empty());
        EXPECT_EQ(sentence.back(), '.');
        EXPECT_FALSE(isupper(sentence[0]) != 0) << "it follows a colon";
        EXPECT_EQ(risk.back(), '.');
        EXPECT_TRUE(isupper(risk[0]) != 0 || risk.starts_with("tarn"));
        EXPECT_EQ((sentence + risk).find("  "), std::string::npos);
    }
}

TEST(catalogue, says_of_every_urgent_finding_that_the_service_must_not_start) {
    for (size_t i = 0; i < FINDING_ROW_COUNT; i++) {
        if (FINDING_ROWS[i].level == severity::urgent) {
            const std::string risk = FINDING_ROWS[i].risk;
            EXPECT_TRUE(risk.find("not start the service") != std::string::npos)
                << FINDING_ROWS[i].name;
        }
    }
}

TEST(catalogue, has_the_agreed_severities) {
    const auto names_of = [](severity level) {
        std::string names;
        for (size_t i = 0; i < FINDING_ROW_COUNT; i++) {
            if (FINDING_ROWS[i].level == level) {
                names += std::string(names.empty() ? "" : " ") + FINDING_ROWS[i].name;
            }
        }
        return names;
    };
    EXPECT_EQ(names_of(severity::urgent), "F02 F03 F07 R01 R02 P01 J03 S05 S07 S08");
    EXPECT_EQ(names_of(severity::damage),
              "H01 H02 H03 H05 T01 T02 T03 F01 F04 M01 M05 M06 M07 M11 R06 R07 P02 D01 D03 D05 "
              "J02 J04 J08 S01 S04 S06");
    EXPECT_EQ(names_of(severity::count), "F05 F06 F08 F09 F10 F11 F12 M03 R03 R04 X01");
    EXPECT_STREQ(severity_word(severity::note), "note");
    EXPECT_STREQ(severity_word(severity::count), "count");
    EXPECT_STREQ(severity_word(severity::damage), "damage");
    EXPECT_STREQ(severity_word(severity::urgent), "urgent");
}

TEST(catalogue, names_only_commands_that_exist) {
    const std::string usage = usage_of_tarn();
    for (size_t i = 0; i < FINDING_ROW_COUNT; i++) {
        SCOPED_TRACE(FINDING_ROWS[i].next);
        const std::vector<std::string> words = words_of(FINDING_ROWS[i].next);
        ASSERT_FALSE(words.empty());
        if (words[0] == "tarn") {
            expect_tarn_knows(words, usage);
        } else {
            ASSERT_EQ(words[0], "tarnctl");
            expect_tarnctl_knows(words);
        }
    }
}
