#include "store/descriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "store/keep_journal.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/scratch_file.h"

constexpr uint64_t MEBIBYTE = 1 << 20;

static bool is_open(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

// One mebibyte of hole, a page of data, holes up to the end of the third mebibyte.
class sparse_file : public testing::Test {
protected:
    sparse_file() { file_.write_at(MEBIBYTE, uint64_t{1}); }
    scratch_file file_{3 * MEBIBYTE};
};

TEST_F(sparse_file, the_next_data_lies_after_the_hole) {
    EXPECT_EQ(io_next_data(file_.fd(), 0, 3 * MEBIBYTE), MEBIBYTE);
    EXPECT_EQ(io_next_data(file_.fd(), MEBIBYTE + 1, 3 * MEBIBYTE), MEBIBYTE + 1);
}

TEST_F(sparse_file, after_the_last_data_the_end_is_next) {
    const uint64_t hole = io_next_hole(file_.fd(), MEBIBYTE, 3 * MEBIBYTE);
    EXPECT_GT(hole, MEBIBYTE);
    EXPECT_LE(hole, 2 * MEBIBYTE);
    EXPECT_EQ(io_next_data(file_.fd(), hole, 3 * MEBIBYTE), 3 * MEBIBYTE);
    EXPECT_EQ(io_next_data(file_.fd(), 4 * MEBIBYTE, 5 * MEBIBYTE), 5 * MEBIBYTE);
}

TEST_F(sparse_file, the_search_for_data_stops_at_the_given_end) {
    EXPECT_EQ(io_next_data(file_.fd(), 0, 4096), 4096u);
    EXPECT_EQ(io_next_hole(file_.fd(), MEBIBYTE, MEBIBYTE + 8), MEBIBYTE + 8);
}

TEST(descriptor, a_file_that_cannot_report_holes_is_all_data) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(io_next_data(ends[0], 512, 4096), 512u);
    EXPECT_EQ(io_next_hole(ends[0], 512, 4096), 4096u);
    close(ends[0]);
    close(ends[1]);
}

TEST(descriptor, an_offset_past_the_largest_is_refused_without_a_system_call) {
    const scratch_file file;
    EXPECT_EQ(io_seek(file.fd(), uint64_t{1} << 63), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(io_truncate(file.fd(), uint64_t{1} << 63), -1);
    EXPECT_EQ(errno, EFBIG);
}

TEST(descriptor, started_programs_inherit_no_file) {
    const scratch_file file;
    const scoped_fd fd(io_open(file.path(), O_RDONLY, 0));
    ASSERT_GT(fd.get(), 0);
    EXPECT_NE(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST(descriptor, reading_the_size_does_not_move_the_position) {
    const scratch_file file(1000);
    ASSERT_EQ(io_seek(file.fd(), 10), 10);
    EXPECT_EQ(io_size(file.fd()), 1000);
    EXPECT_EQ(lseek(file.fd(), 0, SEEK_CUR), 10);
    EXPECT_EQ(io_size(-1), -1);
}

TEST(descriptor, descriptor_0_has_no_identity) {
    const scratch_file one;
    const scratch_file other;
    EXPECT_EQ(io_identity(-1), io_file_id{});
    EXPECT_FALSE(io_identity(one.fd()) == io_identity(other.fd()));
    const scoped_fd again(io_open(one.path(), O_RDONLY, 0));
    EXPECT_EQ(io_identity(again.get()), io_identity(one.fd()));
}

TEST(descriptor, closing_no_file_leaves_descriptor_0_alone) {
    const bool open_before = is_open(0);
    io_close(0);
    close_synced(0);
    EXPECT_EQ(is_open(0), open_before);
}

TEST(descriptor, a_failing_sync_is_logged_and_counted_and_the_file_is_still_closed) {
    keep_journal_forget();
    const scratch_file file;
    const int fd = io_open(file.path(), O_RDWR, 0);
    EXPECT_EQ(io_write(fd, "x", 1), 1);
    log_capture log;
    const io_fault_at fault(1, EIO, {io_call::sync});
    close_synced(fd);
    const std::string text = std::string("Fail to sync ") + file.path() + ": Input/output error";
    EXPECT_EQ(log.lines(), log_lines({"ERR: close_synced(#) " + text + "\n"}));
    EXPECT_EQ(keep_journal_reasons().count, 1u);
    EXPECT_EQ(keep_journal_reasons().first, text);
    EXPECT_EQ(keep_journal_failures().count, 1u);
    EXPECT_FALSE(is_open(fd));
    keep_journal_forget();
}

TEST(descriptor, a_close_syncs_only_what_was_written_or_resized_through_it) {
    const scratch_file file;
    const struct {
        int (*change)(int fd);
        uint64_t syncs;
    } rows[] = {{[](int) { return 0; }, 0},
                {[](int fd) {
                     char byte = 0;
                     return static_cast<int>(io_read(fd, &byte, 1));
                 },
                 0},
                {[](int fd) { return static_cast<int>(io_write(fd, "x", 1)); }, 1},
                {[](int fd) { return io_truncate(fd, 3); }, 1}};
    for (const auto& row : rows) {
        const int fd = io_open(file.path(), O_RDWR, 0);
        EXPECT_GE(row.change(fd), 0);
        EXPECT_EQ(io_was_written(fd), row.syncs == 1);
        const io_fault_at syncs(0, 0, {io_call::sync});
        close_synced(fd);
        EXPECT_EQ(syncs.calls(), row.syncs);
    }
    const int again = io_open(file.path(), O_RDWR, 0);  // the same number, nothing written
    EXPECT_FALSE(io_was_written(again));
    io_close(again);
}

TEST(scoped_fd, closes_at_the_end_of_its_scope_unless_it_was_released) {
    const scratch_file file;
    int closed = 0;
    int kept = 0;
    {
        const scoped_fd first(io_open(file.path(), O_RDONLY, 0));
        scoped_fd second(io_open(file.path(), O_RDONLY, 0));
        closed = first.get();
        kept = second.release();
        EXPECT_EQ(second.get(), 0);
    }
    EXPECT_FALSE(is_open(closed));
    EXPECT_TRUE(is_open(kept));
    close(kept);
}

TEST(scoped_fd, moved_from_it_holds_nothing) {
    const scratch_file file;
    scoped_fd from(io_open(file.path(), O_RDONLY, 0));
    const int fd = from.get();
    {
        const scoped_fd to(std::move(from));
        EXPECT_EQ(to.get(), fd);
    }
    EXPECT_FALSE(is_open(fd));
}
