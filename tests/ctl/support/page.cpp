#include "ctl/support/page.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <sys/stat.h>

#include "ctl/options.h"
#include "ctl/records.h"
#include "ctl/support/nbd.h"
#include "support/scratch_file.h"
#include "system/support/shell.h"

std::string page_text(const std::string& name) {
    std::ifstream file(TARN_DOCS "/" + name);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

namespace {

struct page_session {
    std::string script;  // prints each command before it runs it
    std::string shown;   // the indented lines of the page
    size_t commands = 0;
};

}  // namespace

// Lines of the page belong to a command up to the end of its here document.
static std::string here_document_end(const std::string& line) {
    std::smatch found;
    return std::regex_search(line, found, std::regex("<<'?([A-Z]+)'?$")) ? found[1].str() : "";
}

static page_session session_of(const std::string& text) {
    page_session session;
    std::istringstream lines(text);
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
        const bool is_command = line.starts_with("    $ ");
        inside = is_command || (inside && (line.empty() || line.starts_with("    ")));
        session.shown += inside ? line + "\n" : "";
        if (!is_command) {
            continue;
        }
        std::string command = line.substr(4) + "\n";
        const std::string last = here_document_end(line);
        for (; !last.empty() && line != "    " + last && std::getline(lines, line);) {
            session.shown += line + "\n";
            command += line.substr(std::min<size_t>(line.size(), 4)) + "\n";
        }
        session.script +=
            "cat <<'THE COMMAND'\n" + command + "THE COMMAND\n{ " + command.substr(2) + "} 2>&1\n";
        session.commands++;
    }
    return session;
}

static std::string replaced(std::string text, const std::string& what, const std::string& by) {
    for (size_t at = text.find(what); at != std::string::npos;
         at = text.find(what, at + by.size())) {
        text.replace(at, what.size(), by);
    }
    return text;
}

// Without what differs from server to server and from day to day.
static std::string plain(std::string text, const std::string& server) {
    text = std::regex_replace(" " + text, std::regex("\\s+"), " ");
    text = replaced(text, " " + server + ": ", " NAME: ");
    text = std::regex_replace(text, std::regex("[0-9.]+ [KMGT]iB unknown"), "ROOM unknown");
    text = std::regex_replace(text, std::regex("20[0-9-]+T[0-9:]+Z"), "MOMENT");
    return std::regex_replace(text, std::regex("[0-9]+ seconds? ago"), "AGE ago");
}

static std::string directory_of(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

// The name of the server in the page: the first word of what a command of tarnctl prints.
static std::string server_of(const std::string& shown) {
    std::smatch found;
    const bool is_named =
        std::regex_search(shown, found, std::regex("\n    ([a-z]+): (/srv/|journal)"));
    return is_named ? found[1].str() : "server";
}

// An nbdkit for which the built plug-in is the one called "tarn", as an installed one is.
static void put_nbdkit(const scratch_dir& place) {
    std::ofstream(place.file("nbdkit")) << "#!/bin/sh\n"
                                           "for word; do\n"
                                           "    [ \"$word\" = tarn ] && word=" TARN_NBDKIT_PLUGIN
                                           "\n"
                                           "    set -- \"$@\" \"$word\"\n"
                                           "    shift\n"
                                           "done\n"
                                           "PATH=${PATH#*:} exec nbdkit \"$@\"\n";
    EXPECT_EQ(chmod(place.file("nbdkit").c_str(), 0755), 0);
}

void expect_session(const std::string& text, size_t at_least) {
    const page_session session = session_of(text);
    EXPECT_GE(session.commands, at_least);
    const scratch_dir place;
    const std::string srv = place.file("srv");
    put_nbdkit(place);
    std::ofstream(place.file("script"))
        << "mkdir -p " << srv << "/rescue && cd " << srv << " || exit\nPATH=" << place.path() << ":"
        << directory_of(TARN_CTL_PROGRAM) << ":" << directory_of(TARN_PROGRAM) << ":$PATH\n"
        << replaced(session.script, "/srv", srv);
    const ran done = shell("sh " + place.file("script"));
    EXPECT_EQ(plain(replaced(done.text, srv, "/srv"), host_name()),
              plain(session.shown, server_of(session.shown)));
}

void expect_options(const std::string& text, const char* command) {
    const char* words[] = {"tarnctl", command, "--help"};
    std::istringstream help(parse_options(3, words).out);
    size_t options = 0;
    for (std::string word; help >> word;) {
        const bool common = word == "--help" || word == "--version" || word == "--color" ||
                            word == "--progress" || word == "--conf" || word == "--json" ||
                            word == "--quiet";
        if (word.starts_with("--") && !common) {
            EXPECT_NE(text.find(word.substr(0, word.find(','))), std::string::npos) << word;
            options++;
        }
    }
    EXPECT_GE(options, 1u);
}

void expect_statuses(const std::string& text, std::initializer_list<const char*> statuses) {
    for (const char* status : statuses) {
        EXPECT_NE(text.find("\n| " + std::string(status)), std::string::npos) << status;
    }
}
