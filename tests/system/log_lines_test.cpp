// The page about log lines: on sound volumes, the lines of its first table are logged and no
// others.
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "system/support/damaged_server.h"
#include "system/support/everyday_commands.h"

// One quoted line of the table: "..." and words of capital letters match any text.
struct known_line {
    std::string text;
    std::regex expression;
};

static std::regex expression_of(std::string text) {
    text = std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
    text = std::regex_replace(text, std::regex(R"((\\\.){3})"), ".*");
    return std::regex(std::regex_replace(text, std::regex(R"(\b[A-Z]\b)"), ".*"));
}

static std::vector<known_line> lines_that_mean_nothing() {
    std::ifstream page(TARN_DOCS "/log-lines.md");
    std::vector<known_line> lines;
    bool inside = false;
    const std::regex quoted("`([^`]*)`");
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("## ")) {
            inside = line == "## Lines that mean nothing by themselves";
        }
        const std::string cell = line.substr(0, line.find('|', 1));
        if (!inside || !line.starts_with("| `")) {
            continue;
        }
        for (std::sregex_iterator i(cell.begin(), cell.end(), quoted), end; i != end; ++i) {
            lines.push_back({(*i)[1], expression_of((*i)[1])});
        }
    }
    return lines;
}

TEST(log_lines, of_sound_volumes_are_all_in_the_table_and_each_of_them_occurs) {
    const std::vector<known_line> known = lines_that_mean_nothing();
    ASSERT_GE(known.size(), 10u);
    std::set<std::string> seen;
    for (const char* sample :
         {"--crash --seed 24", "--crash --seed 36", "--crash --seed 56", "--seed 5"}) {
        const damaged_server server(sample);
        for (const std::string& line : server.run(EVERYDAY_COMMANDS).log) {
            bool is_known = false;
            for (const known_line& one : known) {
                if (std::regex_search(line, one.expression)) {
                    is_known = true;
                    seen.insert(one.text);
                }
            }
            EXPECT_TRUE(is_known) << sample << ": " << line;
        }
    }
    for (const known_line& one : known) {
        EXPECT_TRUE(seen.contains(one.text)) << "nothing logs this: " << one.text;
    }
}
