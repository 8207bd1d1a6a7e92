#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "platform.h"
#include "support/scratch_file.h"

static std::string rest_of(FILE* stream) {
    std::string text;
    for (int c = fgetc(stream); c != EOF; c = fgetc(stream)) {
        text += static_cast<char>(c);
    }
    return text;
}

TEST(platform_programs, a_stream_returns_the_output_and_its_close_the_wait_status) {
    FILE* stream = OLIBCPopen("/bin/sh", "r", "-c", "printf '%s|' \"$@\"; exit 3", "name", "a b",
                              "", "*", nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(rest_of(stream), "a b||*|");
    const int status = OLIBCPclose(stream);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
}

TEST(platform_programs, the_close_of_a_stream_returns_the_signal_of_its_program) {
    FILE* stream = OLIBCPopen("/bin/sh", "r", "-c", "kill -9 $$", nullptr);
    ASSERT_NE(stream, nullptr);
    const int status = OLIBCPclose(stream);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), 9);
}

TEST(platform_programs, a_program_that_cannot_be_started_has_no_stream) {
    EXPECT_EQ(OLIBCPopen("/nowhere/program", "r", nullptr), nullptr);
    EXPECT_EQ(OLIBCPopen("/bin/sh", "w", nullptr), nullptr);
    EXPECT_EQ(OLIBCPopen("/dev/null", "r", nullptr), nullptr);
    const char* none = nullptr;
    EXPECT_EQ(OLIBCPopen(none, "r", nullptr), nullptr);
}

TEST(platform_programs, a_stream_opened_by_another_function_is_not_closed) {
    EXPECT_EQ(OLIBCPclose(nullptr), -1);
    FILE* other = fopen("/dev/null", "re");
    EXPECT_EQ(OLIBCPclose(other), -1);
    EXPECT_EQ(fclose(other), 0);
}

TEST(platform_programs, several_streams_may_be_open_at_once) {
    FILE* one = OLIBCPopen("/bin/sh", "r", "-c", "echo one; exit 1", nullptr);
    FILE* two = OLIBCPopen("/bin/sh", "r", "-c", "echo two; exit 2", nullptr);
    ASSERT_NE(one, nullptr);
    ASSERT_NE(two, nullptr);
    EXPECT_EQ(rest_of(one), "one\n");
    EXPECT_EQ(WEXITSTATUS(OLIBCPclose(one)), 1);
    EXPECT_EQ(rest_of(two), "two\n");
    EXPECT_EQ(WEXITSTATUS(OLIBCPclose(two)), 2);
}

TEST(platform_programs, streams_closed_by_the_standard_call_do_not_affect_later_ones) {
    for (int i = 0; i < 40; i++) {  // more than may be open at once
        FILE* plain = OLIBCPopen("/bin/sh", "r", "-c", "exit 7", nullptr);
        ASSERT_NE(plain, nullptr);
        (void)pclose(plain);
        FILE* ours = OLIBCPopen("/bin/sh", "r", "-c", "echo x; exit 5", nullptr);
        ASSERT_NE(ours, nullptr);
        EXPECT_EQ(rest_of(ours), "x\n");
        EXPECT_EQ(WEXITSTATUS(OLIBCPclose(ours)), 5);
    }
}

TEST(platform_programs, a_program_gets_the_standard_descriptors_and_no_other) {
    scratch_file file;  // open here, close-on-exec or not
    const int inherited = dup(file.fd());
    FILE* stream = OLIBCPopen("/bin/sh", "r", "-c",
                              "for f in 0 1 2 3 4 5 6 7 8 9 10 $0; do"
                              " test -e /proc/$$/fd/$f && echo $f; done",
                              std::to_string(inherited).c_str(), nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_GT(inherited, 2);
    EXPECT_EQ(rest_of(stream), "0\n1\n2\n");
    OLIBCPclose(stream);
    close(inherited);
}

// /proc shows the blocked signals as a mask, bit 0 for signal 1: 15 is bit 14.
TEST(platform_programs, a_program_gets_the_signals_that_this_process_started_with) {
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, &before);
    const auto pipe_before = signal(SIGPIPE, SIG_IGN);
    const auto size_before = signal(SIGXFSZ, SIG_IGN);
    FILE* stream =
        OLIBCPopen("/usr/bin/grep", "r", "-E", "^Sig(Blk|Ign):", "/proc/self/status", nullptr);
    ASSERT_NE(stream, nullptr);
    const std::string text = rest_of(stream);
    OLIBCPclose(stream);
    signal(SIGPIPE, pipe_before);
    signal(SIGXFSZ, size_before);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    unsigned long long child_blocked = ~0ULL;
    unsigned long long child_ignored = ~0ULL;
    EXPECT_EQ(sscanf(text.c_str(), "SigBlk: %llx SigIgn: %llx", &child_blocked, &child_ignored), 2);
    EXPECT_EQ(child_blocked >> (SIGTERM - 1) & 1, 0u);
    EXPECT_EQ(child_ignored >> (SIGPIPE - 1) & 1, 0u);
    EXPECT_EQ(child_ignored >> (SIGXFSZ - 1) & 1, 0u);
}

TEST(platform_programs, running_to_the_end_returns_the_exit_status) {
    EXPECT_EQ(OLIBCExec("/bin/true", nullptr), 0);
    EXPECT_EQ(OLIBCExec("/bin/sh", "-c", "exit $#", "name", "a", "b c", nullptr), 2);
    EXPECT_EQ(OLIBCExec("/bin/sh", "-c", "kill -15 $$", nullptr), -1);
    EXPECT_EQ(OLIBCExec("/nowhere/program", nullptr), -1);
    const char* none = nullptr;
    EXPECT_EQ(OLIBCExec(none, nullptr), -1);
}

TEST(platform_programs, no_shell_interprets_the_arguments) {
    const scratch_dir dir;
    const std::string trap = dir.file("made");
    EXPECT_EQ(OLIBCExec("/usr/bin/test", "-n", ("$(touch " + trap + ")").c_str(), nullptr), 0);
    EXPECT_FALSE(file_exists(trap));
}

TEST(platform_error_slot, remembers_the_last_code) {
    OLIBCErrSet(3328);
    EXPECT_EQ(OLIBCErrGet(), 3328);
    OLIBCErrSet(0);
    EXPECT_EQ(OLIBCErrGet(), 0);
}

TEST(platform_fallocate, punches_and_refuses) {
    scratch_file file(65536);
    file.write_at(4096, uint32_t{0xFFFFFFFF});
    EXPECT_GE(ORBAFSFallocate(file.fd(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 4096, 4096),
              0);
    EXPECT_EQ(file.read_at<uint32_t>(4096), 0U);
    EXPECT_EQ(file.size(), 65536U);
    EXPECT_LT(ORBAFSFallocate(-1, 0, 0, 1), 0);
    EXPECT_LT(ORBAFSFallocate(file.fd(), 0, 0, 0), 0);
}
