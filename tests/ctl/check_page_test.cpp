// The page for administrators has every code of the catalogue once, with its severity.
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <string>

#include "ctl/options.h"
#include "view/findings.h"

static std::string page() {
    std::ifstream file(TARN_DOCS "/check.md");
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// The rows "| H01 | D | ..." as code and severity.
static std::map<std::string, std::string> rows_of(const std::string& text) {
    std::map<std::string, std::string> rows;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const bool is_row = line.size() > 8 && line.starts_with("| ") && isupper(line[2]) != 0 &&
                            isdigit(line[3]) != 0 && isdigit(line[4]) != 0;
        if (is_row) {
            const std::string code = line.substr(2, 3);
            EXPECT_FALSE(rows.contains(code)) << code;
            rows[code] = line.substr(8, line.find('|', 8) - 8);
        }
    }
    return rows;
}

TEST(check_page, has_every_code_with_its_severity) {
    const std::map<std::string, std::string> rows = rows_of(page());
    EXPECT_EQ(rows.size(), FINDING_ROW_COUNT);
    for (size_t i = 0; i < FINDING_ROW_COUNT; i++) {
        const finding_row& row = FINDING_ROWS[i];
        const auto found = rows.find(row.name);
        ASSERT_NE(found, rows.end()) << row.name;
        if (row.code != finding_code::X01) {  // neither harmless nor damage
            const char letter = "NCDU"[static_cast<size_t>(row.level)];
            EXPECT_NE(found->second.find(letter), std::string::npos) << row.name;
        }
    }
}

TEST(check_page, has_every_option_of_the_command) {
    const char* words[] = {"tarnctl", "check", "--help"};
    std::istringstream help(parse_options(3, words).out);
    const std::string text = page();
    size_t options = 0;
    for (std::string word; help >> word;) {
        if (word.starts_with("--") && word != "--help" && word != "--version") {
            EXPECT_NE(text.find("`" + word), std::string::npos) << word;
            options++;
        }
    }
    EXPECT_GE(options, 9u);
}

TEST(check_page, has_every_exit_status) {
    const std::string text = page();
    for (const char* status : {"0", "3", "4", "5", "6", "8", "16", "32"}) {
        EXPECT_NE(text.find("\n| " + std::string(status) + " | "), std::string::npos) << status;
    }
}
