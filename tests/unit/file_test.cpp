#include "store/file.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/scratch_file.h"

static uint64_t size_of(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return static_cast<uint64_t>(status.st_size);
}

TEST(file, a_size_of_0_is_logged_as_missing_and_the_existing_file_stays) {
    scratch_file file;
    file.write_at(0, uint32_t{0x11223344});
    log_capture log;

    EXPECT_EQ(create_file(file.path(), 0), 0);

    EXPECT_EQ(log.lines(), log_lines({"ERR: create_file(#) size NULL pointer\n"}));
    EXPECT_EQ(file.size(), 4u);
    EXPECT_EQ(file.read_at<uint32_t>(0), 0x11223344u);
}

TEST(file, a_missing_path_is_logged) {
    log_capture log;
    EXPECT_EQ(create_file(nullptr, 1), 0);
    EXPECT_EQ(open_file(nullptr), 0);
    EXPECT_EQ(log.lines(), log_lines({"ERR: create_file(#) name NULL pointer\n",
                                      "ERR: open_file(#) name NULL pointer\n"}));
}

TEST(file, a_size_past_32_bits_is_set_in_full_and_takes_no_space) {
    scratch_dir dir;
    const int fd = create_file(dir.file("new").c_str(), 0x500000001);
    ASSERT_GT(fd, 0);
    struct stat status = {};
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(status.st_size, 0x500000001);
    EXPECT_EQ(status.st_blocks, 0);
    close(fd);
}

TEST(file, created_over_an_existing_file_it_has_the_size_and_reads_as_zero) {
    scratch_file file;
    file.write_at(0, uint64_t{0x1122334455667788});
    const int fd = create_file(file.path(), 5);
    ASSERT_GT(fd, 0);
    EXPECT_EQ(file.size(), 5u);
    EXPECT_EQ(hex_of(file.bytes(0, 5)), "00 00 00 00 00 ");
    close(fd);
}

TEST(file, the_mode_of_a_new_file_follows_the_umask) {
    scratch_dir dir;
    const mode_t kept = umask(027);
    const int fd = create_file(dir.file("new").c_str(), 1);
    umask(kept);
    struct stat status = {};
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0640u);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    close(fd);
}

TEST(file, a_file_that_cannot_be_created_is_logged_twice) {
    log_capture log;
    EXPECT_EQ(create_file("/no-such-directory/file", 1), 0);
    EXPECT_EQ(log.lines(), log_lines({"ERR: open_fd(#) open file /no-such-directory/file fail\n",
                                      "ERR: create_file(#) fd NULL pointer\n"}));
}

TEST(file, a_size_that_cannot_be_set_closes_the_file) {
    scratch_dir dir;
    const std::string path = dir.file("new");
    const int next = dup(2);  // the number that the next open gets
    close(next);
    log_capture log;
    {
        const io_fault_at fault(1, ENOSPC, {io_call::truncate});
        EXPECT_EQ(create_file(path.c_str(), 7), 0);
    }
    EXPECT_EQ(log.lines(), log_lines({"ERR: create_file(#) fail to set " + path +
                                      " to size 7 errno=No space left on device\n"}));
    EXPECT_EQ(fcntl(next, F_GETFD), -1);
}

TEST(file, a_size_past_the_largest_is_refused) {
    scratch_dir dir;
    log_capture log;
    EXPECT_EQ(create_file(dir.file("new").c_str(), uint64_t{1} << 63), 0);
    EXPECT_TRUE(log.has("to size 9223372036854775808 errno="));
}

TEST(file, opening_a_missing_path_is_logged_by_open_fd) {
    log_capture log;
    EXPECT_EQ(open_file("/no-such-file"), 0);
    EXPECT_EQ(log.lines(), log_lines({"ERR: open_fd(#) open file /no-such-file fail\n"}));
}

TEST(file, an_open_file_is_read_and_written) {
    scratch_file file(100);
    const int fd = open_file(file.path());
    ASSERT_GT(fd, 0);
    const uint8_t bytes[3] = {1, 2, 3};
    EXPECT_EQ(write_fd(fd, bytes, 10, 3), 3);
    uint8_t got[5] = {};
    EXPECT_EQ(read_fd(fd, got, 9, 5), 5);
    EXPECT_EQ(hex_of_bytes(got, 5), "00 01 02 03 00 ");
    close(fd);
}

TEST(file, a_descriptor_of_0_means_no_file_even_if_it_is_open) {
    scratch_file file(8);
    const int kept = dup(0);
    dup2(file.fd(), 0);
    uint8_t byte = 7;
    log_capture log;

    EXPECT_EQ(write_fd(0, &byte, 0, 1), -1);
    EXPECT_EQ(read_fd(0, &byte, 0, 1), -1);

    EXPECT_EQ(log.lines(), log_lines({"ERR: write_fd(#) fd NULL pointer\n",
                                      "ERR: read_fd(#) fd NULL pointer\n"}));
    EXPECT_EQ(hex_of(file.bytes(0, 8)), "00 00 00 00 00 00 00 00 ");
    dup2(kept, 0);
    close(kept);
}

TEST(file, standard_input_closed_by_the_caller_makes_the_first_open_fail) {
    scratch_file file(8);
    const int kept = dup(0);
    log_capture log;

    close(0);
    EXPECT_EQ(open_file(file.path()), 0);
    close(0);
    EXPECT_EQ(create_file(file.path(), 9), 0);

    dup2(kept, 0);
    close(kept);
    EXPECT_EQ(log.lines(), log_lines({"ERR: create_file(#) fd NULL pointer\n"}));
}

TEST(file, a_missing_buffer_is_logged) {
    scratch_file file(8);
    log_capture log;
    EXPECT_EQ(write_fd(file.fd(), nullptr, 0, 1), -1);
    EXPECT_EQ(read_fd(file.fd(), nullptr, 0, 1), -1);
    EXPECT_EQ(log.lines(), log_lines({"ERR: write_fd(#) buf NULL pointer\n",
                                      "ERR: read_fd(#) buf NULL pointer\n"}));
}

TEST(file, a_read_at_the_end_is_short_and_past_it_is_0) {
    scratch_file file(8);
    uint8_t bytes[4];
    log_capture log;
    EXPECT_EQ(read_fd(file.fd(), bytes, 6, 4), 2);
    EXPECT_EQ(read_fd(file.fd(), bytes, 8, 4), 0);
    EXPECT_EQ(read_fd(file.fd(), bytes, 1u << 30, 4), 0);
    EXPECT_TRUE(log.lines().empty());
}

TEST(file, an_offset_past_the_largest_fails_to_seek_and_a_write_there_is_counted) {
    scratch_file file(8);
    uint8_t byte = 1;
    const uint64_t failed = keep_journal_reasons().count;
    log_capture log;
    EXPECT_EQ(read_fd(file.fd(), &byte, uint64_t{1} << 63, 1), -1);
    EXPECT_EQ(keep_journal_reasons().count, failed);
    EXPECT_EQ(write_fd(file.fd(), &byte, ~uint64_t{0}, 1), -1);
    EXPECT_EQ(keep_journal_reasons().count, failed + 1);
    EXPECT_EQ(log.lines(), log_lines({"ERR: read_fd(#) fail seek to 9223372036854775808\n",
                                      "ERR: write_fd(#) fail seek to 18446744073709551615\n"}));
}

TEST(file, a_failing_transfer_logs_nothing_and_a_failing_write_is_counted) {
    scratch_file file(8);
    uint32_t word = 1;
    const uint64_t failed = keep_journal_reasons().count;
    log_capture log;
    {
        const io_fault_at fault(1, EIO, {io_call::read});
        EXPECT_EQ(read_fd(file.fd(), &word, 0, 4), -1);
    }
    EXPECT_EQ(keep_journal_reasons().count, failed);
    {
        const io_fault_at fault(1, EIO, {io_call::write});
        EXPECT_EQ(write_fd(file.fd(), &word, 0, 4), -1);
    }
    EXPECT_EQ(keep_journal_reasons().count, failed + 1);
    EXPECT_TRUE(log.lines().empty());
}

TEST(file, a_short_write_is_one_write_and_is_counted) {
    scratch_file file(8);
    const uint32_t word = 0x11223344;
    const uint64_t failed = keep_journal_reasons().count;
    const io_fault_at fault(1, 0, {io_call::write});
    EXPECT_EQ(write_fd(file.fd(), &word, 0, 4), 2);
    EXPECT_EQ(fault.calls(), 1u);
    EXPECT_EQ(keep_journal_reasons().count, failed + 1);
    EXPECT_EQ(hex_of(file.bytes(0, 4)), "44 33 00 00 ");
}

TEST(file, two_names_of_one_file_are_the_same_file) {
    scratch_dir dir;
    const std::string one = dir.file("one");
    const std::string other = dir.file("other");
    write_file_bytes(one, 0, "x", 1);
    EXPECT_FALSE(io_same_file(one.c_str(), other.c_str()));
    ASSERT_EQ(symlink(one.c_str(), other.c_str()), 0);
    EXPECT_TRUE(io_same_file(one.c_str(), other.c_str()));
    EXPECT_FALSE(io_same_file(one.c_str(), nullptr));
    EXPECT_EQ(size_of(one), 1u);
}
