// The page on the export: its session is what the programs print, and it has every option and every
// exit status.
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

#include "ctl/options.h"
#include "ctl/support/nbd.h"
#include "support/scratch_file.h"
#include "system/support/private_root.h"
#include "system/support/shell.h"

static std::string page() {
    std::ifstream file(TARN_DOCS "/export.md");
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// The commands of the section "A real session", and all of its indented lines.
struct session {
    std::string commands;
    std::string lines;
};

static session session_of(const std::string& text) {
    session found;
    std::istringstream lines(text.substr(text.find("## A real session")));
    bool begun = false;
    for (std::string line; std::getline(lines, line) && !(begun && line.empty());) {
        if (!line.starts_with("    ")) {
            continue;
        }
        begun = true;
        line.erase(0, 4);
        found.lines += line + "\n";
        if (line.starts_with("$ ")) {
            // As a terminal shows it.
            found.commands += "cat <<'END'\n" + line + "\nEND\n" + line.substr(2) + " 2>&1\n";
        }
    }
    return found;
}

// The built programs under the names that the page uses. An installed plug-in is called "tarn".
static void put_programs(const scratch_dir& place, const std::string& nbdkit) {
    std::ofstream(place.file("nbdkit")) << "#!/bin/sh\n"
                                           "for word; do\n"
                                           "    [ \"$word\" = tarn ] && word=" TARN_NBDKIT_PLUGIN
                                           "\n"
                                           "    set -- \"$@\" \"$word\"\n"
                                           "    shift\n"
                                           "done\n"
                                           "exec " +
                                               nbdkit + " \"$@\"\n";
    EXPECT_EQ(shell("cd " + place.path() +
                    " && chmod +x nbdkit && ln -s " TARN_CTL_PROGRAM
                    " tarnctl && ln -s " TARN_LAB_PROGRAM " tarn-lab")
                  .status,
              0);
}

static std::string directory_of(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

static std::string why_not_here() {
    const std::string reason = why_no_private_root();
    return reason.empty() || getenv("TARN_TESTS_SKIP_NOTHING") != nullptr ? why_no_nbd() : reason;
}

TEST(export_page, shows_what_the_programs_print) {
    const std::string reason = why_not_here();
    if (!reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const scratch_dir place;
    const scratch_dir root;
    std::string nbdkit = shell("command -v nbdkit").text;
    nbdkit.pop_back();  // its line end
    put_programs(place, nbdkit);
    const session shown = session_of(page());
    std::ofstream(place.file("session")) << "mkdir -p /srv/rescue\n" << shown.commands;
    const std::string programs = directory_of(TARN_CTL_PROGRAM);
    const std::string problem = in_a_process_of_its_own([&]() -> std::string {
        const std::string failed = enter_private_root(
            root.path(), {{programs, programs, true}, {place.path(), place.path(), false}});
        return !failed.empty() ? failed
                               : shell("PATH=" + place.path() + ":$PATH sh " +
                                       place.file("session") + " >" + place.file("printed"))
                                     .text;
    });
    EXPECT_EQ(problem, "");
    EXPECT_GT(shown.lines.size(), 1800u);
    EXPECT_EQ(shell("cat " + place.file("printed")).text, shown.lines);
}

TEST(export_page, has_every_option_and_exit_status) {
    const char* words[] = {"tarnctl", "export", "--help"};
    std::istringstream help(parse_options(3, words).out);
    const std::string text = page();
    size_t options = 0;
    for (std::string word; help >> word;) {
        if (word.starts_with("--") && word != "--help" && word != "--version" &&
            word != "--color") {
            EXPECT_NE(text.find("`" + word), std::string::npos) << word;
            options++;
        }
    }
    EXPECT_GE(options, 9u);
    for (const char* status : {"0", "4", "8", "16", "32"}) {
        EXPECT_NE(text.find("\n| " + std::string(status) + " | "), std::string::npos) << status;
    }
}
