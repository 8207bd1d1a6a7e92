// The table of messages against the page that it is made from and against the sources, each read a
// second time here.
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "ctl/explain/messages.h"
#include "ctl/explain/recognise.h"

static std::string text_of(const std::filesystem::path& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    EXPECT_TRUE(file.good()) << path;
    return text.str();
}

struct page_entry {
    std::vector<std::string> examples;
    std::vector<std::string> harmless;
};

// The headings of docs/messages.md, with what stands below each.
static std::map<std::string, page_entry> page_entries() {
    std::map<std::string, page_entry> entries;
    std::istringstream page(text_of(std::string(TARN_DOCS) + "/messages.md"));
    std::string line;
    page_entry* current = nullptr;
    while (std::getline(page, line)) {
        if (line.starts_with("### `")) {
            current = &entries[line.substr(5, line.size() - 6)];
        } else if (current != nullptr && line.starts_with("- Example: ")) {
            current->examples.push_back(line.substr(11));
        } else if (current != nullptr && line.starts_with("- Harmless: `")) {
            current->harmless.push_back(line.substr(13, line.size() - 14));
        }
    }
    return entries;
}

static recognised recognise(std::string_view line) {
    static const message_book book;
    return book.recognise(parse_log_line(line));
}

static std::string format_of(const recognised& found) {
    return found.row != nullptr ? found.row->format : "(unknown)";
}

// A line as the format makes it: every text is a path, every number 7.
static std::string line_of(const char* format) {
    std::string line =
        std::regex_replace(std::string(format), std::regex("%s"), "/volume1/@EP/EP_X");
    return std::regex_replace(line, std::regex("%[-0-9]*(ll|z)?[duxXc]"), "7");
}

TEST(explain_messages, the_page_and_the_table_have_the_same_messages) {
    std::set<std::string> in_page;
    std::set<std::string> in_table;
    for (const auto& [heading, entry] : page_entries()) {
        in_page.insert(heading);
    }
    for (const message_row& row : all_messages()) {
        EXPECT_TRUE(in_table.insert(row.format).second) << row.format;
    }
    EXPECT_EQ(in_page, in_table);
    EXPECT_GT(in_table.size(), 400u);
}

TEST(explain_messages, every_message_has_all_words) {
    for (const message_row& row : all_messages()) {
        for (const char* words : {row.means, row.risk_words, row.normal_words, row.next}) {
            EXPECT_TRUE(std::string_view(words).ends_with('.') ||
                        std::string_view(words).ends_with('\''))
                << row.format << ": " << words;
        }
        EXPECT_TRUE(std::string_view(row.risk_words).starts_with(message_risk_word(row.risk)))
            << row.format;
        EXPECT_TRUE(std::string_view(row.normal_words).starts_with(row.normal ? "yes" : "no"))
            << row.format;
    }
}

TEST(explain_messages, a_line_of_every_message_is_recognised_as_that_message) {
    for (const message_row& row : all_messages()) {
        const std::string functions = row.functions;
        const std::string function = functions.substr(0, functions.find(' '));
        const std::string front = function.empty() ? "tarn: " : "ERR: " + function + "(7) ";
        EXPECT_EQ(format_of(recognise(front + line_of(row.format))), row.format);
    }
}

TEST(explain_messages, the_function_in_front_decides_between_messages_that_fit) {
    EXPECT_EQ(format_of(recognise("ERR: do_import_volume(56) Fail to create TBL /a from /b")),
              "Fail to create TBL %s from %s");
    EXPECT_EQ(format_of(recognise("ERR: creat_tbl_op(36) Fail to create TBL /a from /b")),
              "Fail to create %s %s from %s");
    EXPECT_EQ(format_of(recognise("ERR: tbl_entry_read(14) tbl file descriptor is invalid")),
              "tbl file descriptor is invalid");
    EXPECT_EQ(format_of(recognise("ERR: load_tbl(15) tbl file descriptor is invalid")),
              "%s file descriptor is invalid");
    EXPECT_EQ(format_of(recognise("tbl file descriptor is invalid")),
              "tbl file descriptor is invalid");
    EXPECT_EQ(format_of(recognise("ERR: renamed(15) error, group-list loops")),
              "error, group-list loops");
}

TEST(explain_messages, a_line_of_the_terminal_may_be_pasted_without_its_front) {
    EXPECT_EQ(format_of(recognise("lea(756), lpa(1048)")), "TARN_INFO: lea(%llu), lpa(%llu)");
    EXPECT_EQ(format_of(recognise("FreeList IS CONSISTENT")), "TARN_INFO: FreeList IS CONSISTENT");
}

TEST(explain_messages, every_example_of_the_page_is_recognised) {
    int examples = 0;
    for (const auto& [heading, entry] : page_entries()) {
        for (const std::string& example : entry.examples) {
            EXPECT_EQ(format_of(recognise(example)), heading);
            examples++;
        }
    }
    EXPECT_GE(examples, 25);
}

TEST(explain_messages, only_the_harmless_forms_of_a_message_are_harmless) {
    int forms = 0;
    for (const auto& [heading, entry] : page_entries()) {
        for (const std::string& form : entry.harmless) {
            const recognised found = recognise("ERR: any(7) " + line_of(form.c_str()));
            EXPECT_EQ(format_of(found), heading);
            EXPECT_TRUE(found.harmless) << form;
            EXPECT_FALSE(recognise("ERR: any(7) " + line_of(heading.c_str())).harmless) << heading;
            forms++;
        }
    }
    EXPECT_GE(forms, 4);
}

// The longest part of a literal that has neither a conversion nor an escape, one blank for many.
static std::string longest_words(const std::string& literal) {
    static const std::regex parts(
        "%s\\(%d\\)|%[-0-9.*]*(?:ll|z)?[a-zA-Z]|\\\\(?:x1b|033)\\[\\d+m|\\\\.");
    static const std::regex blanks(" +");
    std::string longest;
    for (auto part = std::sregex_token_iterator(literal.begin(), literal.end(), parts, -1);
         part != std::sregex_token_iterator(); ++part) {
        const std::string words = std::regex_replace(part->str(), blanks, " ");
        longest = words.size() > longest.size() ? words : longest;
    }
    const size_t begin = longest.find_first_not_of(' ');
    return begin == std::string::npos
               ? ""
               : longest.substr(begin, longest.find_last_not_of(' ') + 1 - begin);
}

static bool is_in_table(const std::string& words) {
    for (const message_row& row : all_messages()) {
        if (std::string_view(row.format).find(words) != std::string_view::npos) {
            return true;
        }
    }
    return false;
}

// Whether the words are made into a line by a table: the table's own words are the messages.
static bool stands_alone(const std::string& words) {
    static const std::set<std::string> pieces = {"ERR:", "TARN_INFO:", "exists", "name", "handle"};
    return words.size() > 3 && !pieces.contains(words);
}

TEST(explain_messages, no_literal_of_the_sources_is_forgotten) {
    static const std::regex call(
        R"re(\b(?:log_err|log_err_as|log_note_as|log_service|log_keep|log_keep_as|tarn_log|printf|puts|trace|platform_report|keep_journal)\([^;"]*?"((?:\\.|[^"\\])+)")re");
    static const std::regex name(
        R"re(\b(?:log_err_as|log_keep_as|log_note_as)\(\s*"[^"]*",[^;"]*?"((?:\\.|[^"\\])+)")re");
    int literals = 0;
    for (const auto& file : std::filesystem::recursive_directory_iterator(TARN_SOURCES)) {
        const std::string path = file.path().string();
        if (!path.ends_with(".cpp") || path.ends_with("/usage.cpp")) {
            continue;
        }
        const std::string source = text_of(path);
        for (const std::regex* one : {&call, &name}) {
            for (auto found = std::sregex_iterator(source.begin(), source.end(), *one);
                 found != std::sregex_iterator(); ++found) {
                const std::string words = longest_words((*found)[1]);
                const bool is_name = one == &call && words.find(' ') == std::string::npos &&
                                     found->str().find("_as(") != std::string::npos;
                if (is_name || !stands_alone(words)) {
                    continue;
                }
                EXPECT_TRUE(is_in_table(words)) << path << ": " << words;
                literals++;
            }
        }
    }
    EXPECT_GT(literals, 330);
}

// What `pattern` finds in the text, its first group.
static std::set<std::string> found_in(const std::string& text, const char* pattern) {
    std::set<std::string> found;
    const std::regex regex(pattern);
    for (auto one = std::sregex_iterator(text.begin(), text.end(), regex);
         one != std::sregex_iterator(); ++one) {
        found.insert((*one)[1]);
    }
    return found;
}

static std::string all_words() {
    std::string words;
    for (const message_row& row : all_messages()) {
        words += std::string(row.means) + " " + row.next + "\n";
    }
    return words;
}

TEST(explain_messages, the_words_name_only_commands_that_exist) {
    const std::string sources = text_of(std::string(TARN_SOURCES) + "/cli/commands.cpp") +
                                text_of(std::string(TARN_SOURCES) + "/cli/sub_options.cpp");
    const std::set<std::string> known = found_in(sources, "\\{\"([a-z-]+)\",");
    const std::set<std::string> named = found_in(all_words(), " ?'?--([a-z-]+)");
    EXPECT_GE(named.size(), 15u);
    for (const std::string& option : named) {
        EXPECT_TRUE(known.contains(option)) << option;
    }
    const std::set<std::string> companions = {"check", "explain"};
    EXPECT_EQ(found_in(all_words(), "tarnctl ([a-z]+)"), companions);
}

TEST(explain_messages, the_words_name_only_steps_that_exist) {
    const std::set<std::string> steps =
        found_in(text_of(std::string(TARN_DOCS) + "/repair.md"), "## Step ([0-9]+a?):");
    const std::set<std::string> named = found_in(all_words(), "[Ss]tep ([0-9]+a?)");
    EXPECT_GE(named.size(), 8u);
    for (const std::string& step : named) {
        EXPECT_TRUE(steps.contains(step)) << step;
    }
}
