// What `tarnctl` prints on a terminal of a certain width.
#include "ctl/text/terminal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sstream>
#include <string>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ctl/text/escape.h"
#include "system/support/lab_sample.h"

TEST(terminal_columns, are_those_of_the_terminal) {
    int master = -1;
    int terminal = -1;
    winsize size = {24, 73, 0, 0};
    ASSERT_EQ(openpty(&master, &terminal, nullptr, nullptr, &size), 0);
    EXPECT_EQ(terminal_columns(terminal, 100), 73u);
    size.ws_col = 0;  // a serial line
    ASSERT_EQ(ioctl(terminal, TIOCSWINSZ, &size), 0);
    EXPECT_EQ(terminal_columns(terminal, 100), 100u);
    close(master);
    close(terminal);
}

TEST(terminal_columns, of_a_file_are_the_others) {
    const int file = open("/dev/null", O_RDONLY);
    EXPECT_EQ(terminal_columns(file, 100), 100u);
    close(file);
}

// All that the command prints on a terminal of that width, without carriage returns.
static std::string on_terminal(const std::string& command, uint16_t columns) {
    const winsize size = {24, columns, 0, 0};
    int master = -1;
    const pid_t child = forkpty(&master, nullptr, nullptr, &size);
    if (child == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    std::string text;
    char buffer[4096];
    for (ssize_t got = 0; (got = read(master, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<size_t>(got));
    }
    close(master);
    waitpid(child, nullptr, 0);
    std::erase(text, '\r');
    return text;
}

// A command line that is to be copied is never broken.
static size_t widest_line(const std::string& text) {
    size_t widest = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const bool is_command = line.find("Next: ") != std::string::npos;
        widest = std::max(widest, is_command ? 0 : columns_of(line));
    }
    return widest;
}

TEST(on_a_terminal, no_line_of_a_check_is_wider) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 3);
    ASSERT_EQ(damage(sample, "table-noise", 1).status, 0);
    const std::string command =
        TARN_CTL_PROGRAM " --conf " + sample + "/platform.conf --color never check";
    const std::string narrow = on_terminal(command, 80);
    EXPECT_NE(narrow.find("DAMAGE T01"), std::string::npos) << narrow;
    EXPECT_LE(widest_line(narrow), 80u) << narrow;
    EXPECT_GT(widest_line(on_terminal(command, 200)), 80u);
    EXPECT_LE(widest_line(on_terminal(command, 200)), 100u);
}

TEST(on_a_terminal, the_table_of_the_space_fits_80_columns) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 3);
    const std::string text = on_terminal(
        TARN_CTL_PROGRAM " --conf " + sample + "/platform.conf --color never space", 80);
    EXPECT_NE(text.find("snapshot FAMILY_3 (S3/FAMILY_3)  2.9 GiB"), std::string::npos) << text;
    EXPECT_LE(widest_line(text), 80u) << text;
}

// The reader takes nothing for a while, so that the copy is long enough to be shown.
TEST(on_a_terminal, an_export_shows_how_far_it_is) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 3);
    const std::string text = on_terminal(TARN_CTL_PROGRAM " --conf " + sample +
                                             "/platform.conf export LUN_0 --to - | "
                                             "{ sleep 1; cat >/dev/null; }",
                                         80);
    EXPECT_NE(text.find(" %  0:01  LUN_0\x1b[K"), std::string::npos) << text;
    EXPECT_NE(text.find("Exported."), std::string::npos) << text;
}
