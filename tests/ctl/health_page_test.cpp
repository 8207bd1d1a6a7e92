// The page about monitoring: its session is what the programs print, and it names every option,
// exit status and metric.
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sstream>

#include "ctl/options.h"
#include "ctl/records.h"
#include "support/scratch_file.h"
#include "system/support/shell.h"

static std::string page() {
    std::ifstream file(TARN_DOCS "/health.md");
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// The indented lines of the section.
static std::string session_of(const std::string& text) {
    const size_t begin = text.find("\n## A real session\n");
    std::istringstream lines(text.substr(begin, text.find("\n## ", begin + 1) - begin));
    std::string session;
    for (std::string line; std::getline(lines, line);) {
        session += line.starts_with("    ") ? line.substr(4) + "\n" : "";
    }
    return session;
}

// A shell script of the session's commands, which prints each of them before it runs it.
static std::string script_of(const std::string& session) {
    std::istringstream lines(session);
    std::string script;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("$ ")) {
            script += "echo '" + line + "'\n" + line.substr(2) + "\n";
        }
    }
    return script;
}

// Without line ends, and without what differs from server to server: its name, its room, and how
// long the commands take.
static std::string plain(std::string text, const std::string& name) {
    text = std::regex_replace(text, std::regex("\\s+"), " ");
    text = std::regex_replace(text, std::regex(" " + name + ": journal"), " NAME: journal");
    text = std::regex_replace(text, std::regex("[0-9.]+ [KMGT]iB unknown"), "ROOM unknown");
    return std::regex_replace(text, std::regex("[0-9]+ seconds? ago"), "AGE ago");
}

static std::string replaced(std::string text, const std::string& what, const std::string& by) {
    for (size_t at = text.find(what); at != std::string::npos;
         at = text.find(what, at + by.size())) {
        text.replace(at, what.size(), by);
    }
    return text;
}

static std::string directory_of(const std::string& program) {
    return program.substr(0, program.rfind('/'));
}

TEST(health_page, has_a_session_as_the_programs_print_it) {
    const std::string session = session_of(page());
    ASSERT_NE(session.find("$ tarnctl health"), std::string::npos);
    const scratch_dir place;
    const std::string lab = place.file("lab");
    std::ofstream(place.file("script")) << "PATH=" << directory_of(TARN_CTL_PROGRAM) << ":"
                                        << directory_of(TARN_LAB_PROGRAM) << ":$PATH\n"
                                        << replaced(script_of(session), "/srv/lab", lab);
    const ran done = shell("sh " + place.file("script"));
    EXPECT_EQ(plain(" " + replaced(done.text, lab, "/srv/lab"), host_name()),
              plain(" " + session, "alpha"));
}

TEST(health_page, has_every_option_of_the_command) {
    const char* words[] = {"tarnctl", "health", "--help"};
    std::istringstream help(parse_options(3, words).out);
    const std::string text = page();
    size_t options = 0;
    for (std::string word; help >> word;) {
        if (word.starts_with("--") && word != "--help" && word != "--version") {
            EXPECT_NE(text.find("| `" + word), std::string::npos) << word;
            options++;
        }
    }
    EXPECT_GE(options, 7u);
}

TEST(health_page, has_every_exit_status) {
    const std::string text = page();
    for (const char* status : {"0", "3", "4", "5", "6", "8", "16"}) {
        EXPECT_NE(text.find("\n| " + std::string(status) + " | "), std::string::npos) << status;
    }
}

// The metrics as the source names them.
TEST(health_page, has_every_metric) {
    std::ifstream file(TARN_SOURCES "/../tools/ctl/health/print_prometheus.cpp");
    std::ostringstream source;
    source << file.rdbuf();
    const std::string code = source.str();
    const std::string text = page();
    static const std::regex name("begin\\(\\s*\"(tarn_[a-z_]+)\"");
    size_t metrics = 0;
    for (std::sregex_iterator at(code.begin(), code.end(), name); at != std::sregex_iterator();
         ++at, metrics++) {
        EXPECT_NE(text.find("\n| `" + (*at)[1].str() + "` | "), std::string::npos) << (*at)[1];
    }
    EXPECT_EQ(metrics, 13u);
}
