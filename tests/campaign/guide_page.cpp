#include "campaign/guide_page.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
#include <sstream>

// The cells of "| a | b |", without the blanks around them.
static std::vector<std::string> cells_of(const std::string& line) {
    std::vector<std::string> cells;
    std::istringstream text(line.substr(1));
    for (std::string cell; std::getline(text, cell, '|');) {
        const size_t begin = cell.find_first_not_of(' ');
        const size_t end = cell.find_last_not_of(' ');
        cells.push_back(begin == std::string::npos ? "" : cell.substr(begin, end - begin + 1));
    }
    return cells;
}

static std::vector<std::string> quoted_in(const std::string& cell) {
    static const std::regex quoted("`([^`]*)`");
    std::vector<std::string> found;
    for (std::sregex_iterator i(cell.begin(), cell.end(), quoted), end; i != end; ++i) {
        found.push_back((*i)[1]);
    }
    return found;
}

static std::string match_in(const std::string& text, const char* pattern) {
    std::smatch match;
    return std::regex_search(text, match, std::regex(pattern)) ? match[1].str() : "";
}

static guide_row row_of(const std::string& line) {
    const std::vector<std::string> cells = cells_of(line);
    EXPECT_EQ(cells.size(), 5u) << line;
    if (cells.size() != 5) {
        return {};
    }
    guide_row row = {quoted_in(cells[0]),
                     "",
                     match_in(cells[2], "recipe ([a-z]+)"),
                     cells[3],
                     match_in(cells[4], "(step [0-9a-z]+|stop|mend|done)"),
                     line};
    for (const std::string& command : quoted_in(cells[2])) {
        row.commands += command + "\n";
    }
    EXPECT_NE(row.next, "") << line;
    EXPECT_TRUE(!row.patterns.empty() || cells[0] == "anything else") << line;
    return row;
}

static void expect_complete(const guide& page) {
    for (const auto& [name, step] : page.steps) {
        EXPECT_FALSE(step.rows.empty()) << "step " << name;
        for (const guide_row& row : step.rows) {
            EXPECT_TRUE(row.recipe.empty() || page.recipes.contains(row.recipe)) << row.text;
            EXPECT_TRUE(!row.next.starts_with("step ") || page.steps.contains(row.next.substr(5)))
                << row.text;
        }
    }
}

guide read_guide(const std::string& text) {
    guide page;
    std::string step;
    std::string* commands = nullptr;  // receives the section's commands
    bool fenced = false;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("```")) {
            fenced = line == "```sh";
        } else if (fenced && commands != nullptr) {
            *commands += line + "\n";
        } else if (line.starts_with("## Step ")) {
            step = match_in(line, "^## Step ([0-9a-z]+): ");
            commands = &page.steps[step].commands;
        } else if (line.starts_with("#")) {
            step = "";
            const std::string recipe = match_in(line, "^### Recipe ([a-z]+)$");
            commands = recipe.empty() ? nullptr : &page.recipes[recipe];
        } else if (line.starts_with("|") && !step.empty() && line != GUIDE_COLUMNS &&
                   !line.starts_with("|---")) {
            page.steps[step].rows.push_back(row_of(line));
        }
    }
    expect_complete(page);
    return page;
}

guide read_guide_page() {
    std::ifstream file(TARN_DOCS "/repair.md");
    return read_guide({std::istreambuf_iterator<char>(file), {}});
}
