#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "platform.h"

static std::string all_of(FILE* stream) {
    std::string text;
    for (int c = getc(stream); c != EOF; c = getc(stream)) {
        text += static_cast<char>(c);
    }
    return text;
}

static bool has_child() {
    siginfo_t info = {};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

TEST(platform_streams, a_program_that_cannot_be_run_leaves_no_process) {
    EXPECT_EQ(OLIBCExec("/", nullptr), -1);
    EXPECT_EQ(OLIBCExec("sh", "-c", "exit 0", nullptr), -1);  // no search along PATH
    EXPECT_EQ(OLIBCPopen("/no/such/program", "r", nullptr), nullptr);
    const char* none = nullptr;
    EXPECT_EQ(OLIBCPopen("/bin/sh", none, nullptr), nullptr);
    EXPECT_FALSE(has_child());
}

TEST(platform_streams, arguments_follow_unchanged_after_the_program_s_name) {
    FILE* stream = OLIBCPopen("/bin/sh", "r", "-c",
                              "printf '<%s>' \"$@\"; tr '\\0' ' ' "
                              "</proc/$$/cmdline | cut -c1-10",
                              "-", "a b", "", "$HOME;*", nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(all_of(stream), "<a b><><$HOME;*>/bin/sh -c\n");
    EXPECT_EQ(OLIBCPclose(stream), 0);
}

TEST(platform_streams, a_program_takes_62_arguments_and_no_more) {
#define TEN "x", "x", "x", "x", "x", "x", "x", "x", "x", "x"
    FILE* stream = OLIBCPopen("/bin/sh", "r", "-c", "echo $#", TEN, TEN, TEN, TEN, TEN, TEN,  //
                              nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(all_of(stream), "59\n");  // the first of them is $0
    EXPECT_EQ(OLIBCPclose(stream), 0);
    EXPECT_EQ(
        OLIBCPopen("/bin/sh", "r", "-c", "echo $#", TEN, TEN, TEN, TEN, TEN, TEN, "x", nullptr),
        nullptr);
    EXPECT_EQ(OLIBCExec("/bin/sh", "-c", "exit 0", TEN, TEN, TEN, TEN, TEN, TEN, nullptr), 0);
    EXPECT_EQ(OLIBCExec("/bin/sh", "-c", "exit 0", TEN, TEN, TEN, TEN, TEN, TEN, "x", nullptr), -1);
#undef TEN
}

TEST(platform_streams, a_program_whose_output_is_not_read_ends_by_the_closed_pipe) {
    signal(SIGPIPE, SIG_IGN);  // as the tool does; the program gets the default back
    FILE* stream = OLIBCPopen("/bin/sh", "r", "-c", "while echo x; do :; done", nullptr);
    ASSERT_NE(stream, nullptr);
    const int status = OLIBCPclose(stream);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGPIPE);
    signal(SIGPIPE, SIG_DFL);
}

TEST(platform_streams, a_program_has_no_signal_blocked) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &before);
    FILE* stream = OLIBCPopen("/bin/grep", "r", "SigBlk", "/proc/self/status", nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(all_of(stream), "SigBlk:\t0000000000000000\n");
    EXPECT_EQ(OLIBCPclose(stream), 0);
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

TEST(platform_streams,
     a_program_inherits_no_open_stream_and_no_other_descriptor_unlike_a_plain_child) {
    constexpr int held = 50;
    ASSERT_EQ(dup2(STDERR_FILENO, held), held);  // not closed on exec: a plain child inherits it
    FILE* open_meanwhile = OLIBCPopen("/bin/sh", "r", "-c", "exit 0", nullptr);
    ASSERT_NE(open_meanwhile, nullptr);
    const char* look = "test -e /proc/self/fd/50";
    // NOLINTNEXTLINE(cert-env33-c): a plain child for comparison
    EXPECT_EQ(system(look), 0);
    EXPECT_EQ(OLIBCExec("/bin/sh", "-c", look, nullptr), 1);
    // ls itself has opened 3.
    FILE* stream = OLIBCPopen("/bin/ls", "r", "/proc/self/fd", nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(all_of(stream), "0\n1\n2\n3\n");
    EXPECT_EQ(OLIBCPclose(stream), 0);
    close(held);
    EXPECT_EQ(OLIBCPclose(open_meanwhile), 0);
}

TEST(platform_streams, closing_waits_for_the_stream_s_own_program) {
    FILE* first = OLIBCPopen("/bin/sh", "r", "-c", "exit 1", nullptr);
    FILE* second = OLIBCPopen("/bin/sh", "r", "-c", "exit 2", nullptr);
    FILE* third = OLIBCPopen("/bin/sh", "r", "-c", "exit 3", nullptr);
    ASSERT_TRUE(first != nullptr && second != nullptr && third != nullptr);
    EXPECT_EQ(OLIBCExec("/bin/sh", "-c", "exit 4", nullptr), 4);
    EXPECT_EQ(OLIBCPclose(second), 2 << 8);
    EXPECT_EQ(OLIBCPclose(third), 3 << 8);
    EXPECT_EQ(OLIBCPclose(first), 1 << 8);
}

TEST(platform_streams, statuses_are_kept_even_if_the_parent_left_sigchld_ignored) {
    signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(OLIBCExec("/bin/sh", "-c", "exit 5", nullptr), 5);
    signal(SIGCHLD, SIG_IGN);
    FILE* stream = OLIBCPopen("/bin/sh", "r", "-c", "exit 6", nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(OLIBCPclose(stream), 6 << 8);
    signal(SIGCHLD, SIG_DFL);
}

// Like uuid generation, far more often than there are rows for streams.
TEST(platform_streams, the_standard_pclose_may_close_any_number_while_another_stream_is_read) {
    FILE* outer = OLIBCPopen("/bin/sh", "r", "-c", "echo outer; exit 9", nullptr);
    ASSERT_NE(outer, nullptr);
    for (int i = 0; i < 100; i++) {
        FILE* stream = OLIBCPopen("/bin/sh", "r", "-c", "echo inner; exit 8", nullptr);
        ASSERT_NE(stream, nullptr) << i;
        EXPECT_EQ(all_of(stream), "inner\n");
        EXPECT_EQ(pclose(stream), 0);
        EXPECT_EQ(OLIBCExec("/bin/sh", "-c", "exit 4", nullptr), 4);
    }
    EXPECT_EQ(all_of(outer), "outer\n");
    EXPECT_EQ(OLIBCPclose(outer), 9 << 8);
}

// An abandoned program that is still running has the row of a stream at the same address.
TEST(platform_streams, an_abandoned_program_that_still_runs_blocks_nothing) {
    const char* wait_for_end = "read line; exit 1";
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const int saved = dup(STDIN_FILENO);
    ASSERT_EQ(dup2(ends[0], STDIN_FILENO), STDIN_FILENO);
    FILE* abandoned = OLIBCPopen("/bin/sh", "r", "-c", wait_for_end, nullptr);
    ASSERT_NE(abandoned, nullptr);
    EXPECT_EQ(pclose(abandoned), 0);
    FILE* stream = OLIBCPopen("/bin/sh", "r", "-c", "exit 2", nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(OLIBCPclose(stream), 2 << 8);  // does not wait for the other
    dup2(saved, STDIN_FILENO);
    close(saved);
    close(ends[0]);
    close(ends[1]);  // the abandoned one reads the end of the pipe and exits
    siginfo_t info = {};
    EXPECT_EQ(waitid(P_ALL, 0, &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(OLIBCPclose(OLIBCPopen("/bin/sh", "r", "-c", "exit 3", nullptr)), 3 << 8);
    EXPECT_FALSE(has_child());  // starting the last one reaped it
}
