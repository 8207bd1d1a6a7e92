// The page docs/space.md: its session is repeated and has to come out as printed, and it names
// every option and exit status of both commands.
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "ctl/options.h"
#include "support/scratch_file.h"
#include "system/support/shell.h"

static std::string page() {
    std::ifstream file(TARN_DOCS "/space.md");
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

struct session_step {
    std::string command;
    std::string printed;
};

// The lines "    $ COMMAND" with what follows them, indented.
static std::vector<session_step> session() {
    std::vector<session_step> steps;
    std::istringstream lines(page());
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("    $ ")) {
            steps.push_back({line.substr(6), ""});
            inside = true;
        } else if (inside && (line.empty() || line.starts_with("    "))) {
            steps.back().printed += line + "\n";
        } else {
            inside = false;
        }
    }
    return steps;
}

static void replace_all(std::string* text, const std::string& from, const std::string& to) {
    for (size_t at = text->find(from); at != std::string::npos; at = text->find(from, at)) {
        text->replace(at, from.size(), to);
        at += to.size();
    }
}

// Where lines break depends on the length of paths.
static std::string words_of(const std::string& text) {
    std::istringstream words(text);
    std::string all;
    for (std::string word; words >> word;) {
        all += (all.empty() ? "" : " ") + word;
    }
    return all;
}

TEST(space_page, shows_what_the_commands_print) {
    const scratch_dir place;
    const std::string lab = place.file("lab");
    char host[256] = {};
    ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
    const std::string programs =
        std::string(TARN_CTL_PROGRAM).substr(0, std::string(TARN_CTL_PROGRAM).rfind('/'));
    const std::string tarn =
        std::string(TARN_PROGRAM).substr(0, std::string(TARN_PROGRAM).rfind('/'));
    std::string before = "export PATH=" + programs + ":" + tarn + ":$PATH; ";
    const std::vector<session_step> steps = session();
    EXPECT_GE(steps.size(), 9u);
    for (const session_step& step : steps) {
        std::string command = step.command;
        replace_all(&command, "/srv/lab", lab);
        if (command.starts_with("export ")) {
            before += command + "; ";
            continue;
        }
        std::string printed = shell("{ " + before + command + "; }").text;
        replace_all(&printed, lab, "/srv/lab");
        replace_all(&printed, std::string(host) + ": /srv", "server: /srv");
        EXPECT_EQ(words_of(printed), words_of(step.printed)) << step.command;
    }
}

TEST(space_page, has_every_option_and_exit_status) {
    const std::string text = page();
    for (const char* command : {"space", "punch"}) {
        const char* words[] = {"tarnctl", command, "--help"};
        std::istringstream help(parse_options(3, words).out);
        for (std::string word; help >> word;) {
            const bool common = word == "--help" || word == "--version" || word == "--color" ||
                                word == "--progress";
            if (word.starts_with("--") && !common) {
                EXPECT_NE(text.find("`" + word.substr(0, word.find(','))), std::string::npos)
                    << word;
            }
        }
    }
    for (const char* status : {"0", "6", "8", "16", "32"}) {
        EXPECT_NE(text.find("\n| " + std::string(status) + " | "), std::string::npos) << status;
    }
}
