// The sessions of the documents are what the programs print: every page that has one is played.
#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

#include "ctl/support/nbd.h"
#include "ctl/support/page.h"

// A page with a session has one command at least; these have more.
static const std::map<std::string, size_t> LEAST = {
    {"check.md", 4},  {"export.md", 8},    {"formats.md", 9},
    {"health.md", 5}, {"inventory.md", 8}, {"space.md", 9},
};

static std::vector<std::string> pages_with_a_session() {
    std::vector<std::string> pages = {"../README.md"};
    for (const auto& entry : std::filesystem::directory_iterator(TARN_DOCS)) {
        if (entry.path().extension() == ".md") {
            pages.push_back(entry.path().filename());
        }
    }
    std::erase_if(pages, [](const std::string& page) {
        return ("\n" + page_text(page)).find("\n    $ ") == std::string::npos;
    });
    return pages;
}

// Why the session cannot be played here; empty: it can, or must.
static std::string why_not_here(const std::string& text) {
    if (text.find("\n    $ nbdkit ") != std::string::npos) {
        return why_no_nbd();
    }
    const bool has_xxd = shell("command -v xxd >/dev/null").status == 0;
    const bool may_skip = getenv("TARN_TESTS_SKIP_NOTHING") == nullptr;
    return text.find("\n    $ xxd ") != std::string::npos && !has_xxd && may_skip
               ? "xxd is not installed"
               : "";
}

// One test for all pages: ctest knows the tests of the last build, and a page may be newer.
TEST(sessions, are_what_the_programs_print) {
    std::string skipped;
    for (const std::string& page : pages_with_a_session()) {
        SCOPED_TRACE(page);
        const std::string text = page_text(page);
        const std::string reason = why_not_here(text);
        if (!reason.empty()) {
            skipped += page + ": " + reason + "\n";
            continue;
        }
        const auto least = LEAST.find(page);
        expect_session(text, least != LEAST.end() ? least->second : 1);
    }
    if (!skipped.empty()) {
        GTEST_SKIP() << skipped;
    }
}

TEST(sessions, are_on_every_page_that_must_have_one) {
    const std::vector<std::string> pages = pages_with_a_session();
    for (const auto& [page, least] : LEAST) {
        EXPECT_EQ(std::count(pages.begin(), pages.end(), page), 1) << page;
    }
}
