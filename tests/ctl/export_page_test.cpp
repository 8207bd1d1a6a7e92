// The page on the export: its session is what the programs print, and it has every option and every
// exit status.
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

#include "ctl/options.h"
#include "ctl/support/nbd.h"
#include "support/scratch_file.h"
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
static void put_programs(const scratch_dir& place) {
    std::ofstream(place.file("nbdkit")) << "#!/bin/sh\n"
                                           "for word; do\n"
                                           "    [ \"$word\" = tarn ] && word=$PLUGIN\n"
                                           "    set -- \"$@\" \"$word\"\n"
                                           "    shift\n"
                                           "done\n"
                                           "exec $NBDKIT \"$@\"\n";
    EXPECT_EQ(shell("cd " + place.path() +
                    " && chmod +x nbdkit && ln -s " TARN_CTL_PROGRAM
                    " tarnctl && ln -s " TARN_LAB_PROGRAM " tarn-lab")
                  .status,
              0);
}

TEST(export_page, shows_what_the_programs_print) {
    const std::string reason = why_no_nbd();
    if (!reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const scratch_dir place;
    put_programs(place);
    const session shown = session_of(page());
    std::ofstream(place.file("session")) << shown.commands;
    const ran done = shell(
        "unshare -rm sh -c 'mount -t tmpfs tmpfs /srv && mkdir /srv/rescue && "
        "NBDKIT=$(command -v nbdkit) PLUGIN=" TARN_NBDKIT_PLUGIN " PATH=" +
        place.path() + ":$PATH sh " + place.file("session") + "'");
    EXPECT_GT(shown.lines.size(), 1800u);
    EXPECT_EQ(done.text, shown.lines);
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
