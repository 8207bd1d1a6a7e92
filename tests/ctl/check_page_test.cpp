// The page for administrators has every code of the catalogue once, with its severity.
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <string>

#include "ctl/support/page.h"
#include "view/findings.h"

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
    const std::map<std::string, std::string> rows = rows_of(page_text("check.md"));
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
    expect_options(page_text("check.md"), "check");
}

TEST(check_page, has_every_exit_status) {
    expect_statuses(page_text("check.md"), {"0", "3", "4", "5", "6", "8", "16"});
}
