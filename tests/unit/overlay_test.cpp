#include "store/overlay.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>
#include <unistd.h>

#include "support/io_faults.h"
#include "support/scratch_file.h"

static constexpr size_t PLENTY = 1000;  // blocks
static constexpr uint64_t MEBIBYTE = 1 << 20;

static scoped_fd open_through_seam(const char* path, int flags = O_RDWR) {
    const int fd = io_open(path, flags, 0600);
    EXPECT_GT(fd, 0) << path;
    return scoped_fd(fd);
}

static std::string read_text(int fd, uint64_t offset, size_t len) {
    std::string text(len, '?');
    const ssize_t got = io_read_at(fd, text.data(), len, offset);
    EXPECT_GE(got, 0);
    text.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    return text;
}

static void write_text(int fd, uint64_t offset, const std::string& text) {
    EXPECT_EQ(io_write_at(fd, text.data(), text.size(), offset), static_cast<ssize_t>(text.size()));
}

static std::string disk_text(const scratch_file& file, uint64_t offset, size_t len) {
    const std::vector<uint8_t> bytes = file.bytes(offset, len);
    return std::string(bytes.begin(), bytes.end());
}

// A file of 1024 bytes "a", two blocks.
class overlay_over_letters : public testing::Test {
protected:
    overlay_over_letters() {
        const std::string letters(1024, 'a');
        file_.write_bytes(0, letters.data(), letters.size());
    }
    scratch_file file_{1024};
};

TEST_F(overlay_over_letters,
       a_write_across_a_block_edge_is_read_back_and_the_disk_keeps_its_bytes) {
    const io_overlay overlay(PLENTY);
    const scoped_fd fd = open_through_seam(file_.path());
    write_text(fd.get(), 510, "WXYZ");
    EXPECT_EQ(read_text(fd.get(), 508, 8), "aaWXYZaa");
    EXPECT_EQ(read_text(fd.get(), 511, 1), "X");
    EXPECT_EQ(read_text(fd.get(), 512, 2), "YZ");
    EXPECT_EQ(overlay.block_count(), 2u);
    EXPECT_EQ(disk_text(file_, 508, 8), "aaaaaaaa");
}

TEST_F(overlay_over_letters, a_second_write_into_a_block_keeps_what_the_first_one_left) {
    const io_overlay overlay(PLENTY);
    const scoped_fd fd = open_through_seam(file_.path());
    write_text(fd.get(), 100, "11");
    write_text(fd.get(), 101, "22");
    EXPECT_EQ(read_text(fd.get(), 99, 5), "a122a");
    EXPECT_EQ(overlay.block_count(), 1u);
}

TEST_F(overlay_over_letters, a_read_over_several_blocks_takes_each_from_where_it_is) {
    const io_overlay overlay(PLENTY);
    const scoped_fd fd = open_through_seam(file_.path());
    write_text(fd.get(), 0, std::string(512, 'b'));
    EXPECT_EQ(read_text(fd.get(), 0, 4096), std::string(512, 'b') + std::string(512, 'a'));
    write_text(fd.get(), 512, std::string(512, 'c'));
    EXPECT_EQ(read_text(fd.get(), 0, 4096), std::string(512, 'b') + std::string(512, 'c'));
}

TEST_F(overlay_over_letters, transfers_at_the_position_move_it) {
    const io_overlay overlay(PLENTY);
    const scoped_fd fd = open_through_seam(file_.path());
    EXPECT_EQ(io_seek(fd.get(), 3), 3);
    EXPECT_EQ(io_write(fd.get(), "XY", 2), 2);
    char text[4] = {};
    EXPECT_EQ(io_read(fd.get(), text, 3), 3);  // from byte 5 on
    EXPECT_STREQ(text, "aaa");
    EXPECT_EQ(io_write(fd.get(), "Z", 1), 1);  // byte 8
    EXPECT_EQ(read_text(fd.get(), 2, 8), "aXYaaaZa");
    EXPECT_EQ(lseek(fd.get(), 0, SEEK_CUR), 9);
}

TEST_F(overlay_over_letters, every_descriptor_of_the_file_sees_a_write) {
    const scoped_fd before = open_through_seam(file_.path());
    const io_overlay overlay(PLENTY);
    const scoped_fd writer = open_through_seam(file_.path());
    const scoped_fd reader = open_through_seam(file_.path(), O_RDONLY);
    write_text(writer.get(), 1, "W");
    write_text(before.get(), 2, "B");  // open for writing on the disk as well
    write_text(file_.fd(), 3, "S");    // opened past the seam
    for (const int fd : {before.get(), writer.get(), reader.get(), file_.fd()}) {
        EXPECT_EQ(read_text(fd, 0, 5), "aWBSa");
    }
    EXPECT_EQ(disk_text(file_, 0, 5), "aaaaa");
}

TEST_F(overlay_over_letters, another_file_is_read_as_the_disk_has_it) {
    const scratch_file other(1024);
    const io_overlay overlay(PLENTY);
    const scoped_fd fd = open_through_seam(file_.path());
    const scoped_fd untouched = open_through_seam(other.path());
    write_text(fd.get(), 0, "XY");
    EXPECT_EQ(read_text(untouched.get(), 0, 2), std::string(2, '\0'));
    EXPECT_EQ(io_size(untouched.get()), 1024);
}

TEST_F(overlay_over_letters, the_writes_are_gone_with_the_overlay) {
    {
        const io_overlay overlay(PLENTY);
        const scoped_fd fd = open_through_seam(file_.path());
        write_text(fd.get(), 0, "XY");
        write_text(fd.get(), 5000, "Z");
    }
    const io_overlay another(PLENTY);
    const scoped_fd fd = open_through_seam(file_.path());
    EXPECT_EQ(read_text(fd.get(), 0, 2), "aa");
    EXPECT_EQ(io_size(fd.get()), 1024);
}

TEST_F(overlay_over_letters, a_write_past_the_end_makes_the_file_longer_at_every_look) {
    const io_overlay overlay(PLENTY);
    const scoped_fd fd = open_through_seam(file_.path());
    write_text(fd.get(), 3000, "XYZ");
    struct stat64 status = {};
    EXPECT_EQ(io_size(fd.get()), 3003);
    EXPECT_EQ(io_stat(file_.path(), &status), 0);
    EXPECT_EQ(status.st_size, 3003);
    EXPECT_EQ(io_lstat(file_.path(), &status), 0);
    EXPECT_EQ(status.st_size, 3003);
    EXPECT_EQ(file_.size(), 1024u);
}

TEST_F(overlay_over_letters, between_the_old_end_and_a_later_write_everything_is_zero) {
    const io_overlay overlay(PLENTY);
    const scoped_fd fd = open_through_seam(file_.path());
    write_text(fd.get(), 3000, "XYZ");
    EXPECT_EQ(read_text(fd.get(), 1020, 1000), "aaaa" + std::string(996, '\0'));
    EXPECT_EQ(read_text(fd.get(), 2500, 20), std::string(20, '\0'));
    EXPECT_EQ(read_text(fd.get(), 2998, 100), std::string(2, '\0') + "XYZ");
    EXPECT_EQ(read_text(fd.get(), 3003, 10), "");
    EXPECT_EQ(read_text(fd.get(), 9000, 10), "");
}

TEST_F(overlay_over_letters, a_write_inside_the_file_does_not_change_its_size) {
    const io_overlay overlay(PLENTY);
    const scoped_fd fd = open_through_seam(file_.path());
    write_text(fd.get(), 1000, "X");
    EXPECT_EQ(io_size(fd.get()), 1024);
    EXPECT_EQ(read_text(fd.get(), 1020, 100), "aaaa");
}

TEST(overlay, the_end_of_a_file_inside_a_kept_block_is_where_it_was) {
    scratch_file file(700);
    file.write_at(699, 'e');
    const io_overlay overlay(PLENTY);
    const scoped_fd fd = open_through_seam(file.path());
    write_text(fd.get(), 600, "X");
    EXPECT_EQ(io_size(fd.get()), 700);
    EXPECT_EQ(read_text(fd.get(), 698, 10), std::string("\0e", 2));
    EXPECT_EQ(io_next_data(fd.get(), 700, 1024), 1024u);
    EXPECT_EQ(io_next_hole(fd.get(), 600, 1024), 700u);
}

// Three mebibytes, a page of data at the second.
class overlay_over_holes : public testing::Test {
protected:
    overlay_over_holes() { file_.write_at(MEBIBYTE, uint64_t{1}); }
    scratch_file file_{3 * MEBIBYTE};
    const io_overlay overlay_{PLENTY};
    const scoped_fd fd_ = open_through_seam(file_.path());
    const uint64_t end_ = 3 * MEBIBYTE;
};

TEST_F(overlay_over_holes, without_a_write_data_and_holes_are_those_of_the_disk) {
    EXPECT_EQ(io_next_data(fd_.get(), 0, end_), MEBIBYTE);
    const uint64_t hole = io_next_hole(fd_.get(), MEBIBYTE, end_);
    EXPECT_GT(hole, MEBIBYTE);
    EXPECT_LE(hole, 2 * MEBIBYTE);
    EXPECT_EQ(io_next_hole(fd_.get(), 0, end_), 0u);
    EXPECT_EQ(io_next_data(fd_.get(), hole, end_), end_);
}

TEST_F(overlay_over_holes, a_block_that_was_written_is_data_and_its_neighbours_stay_a_hole) {
    write_text(fd_.get(), 2 * MEBIBYTE + 700, "X");  // the block from 512 to 1023
    EXPECT_EQ(io_next_data(fd_.get(), 0, end_), MEBIBYTE);
    EXPECT_EQ(io_next_data(fd_.get(), 2 * MEBIBYTE, end_), 2 * MEBIBYTE + 512);
    EXPECT_EQ(io_next_data(fd_.get(), 2 * MEBIBYTE + 600, end_), 2 * MEBIBYTE + 600);
    EXPECT_EQ(io_next_hole(fd_.get(), 2 * MEBIBYTE, end_), 2 * MEBIBYTE);
    EXPECT_EQ(io_next_hole(fd_.get(), 2 * MEBIBYTE + 512, end_), 2 * MEBIBYTE + 1024);
    EXPECT_EQ(io_next_hole(fd_.get(), 2 * MEBIBYTE + 600, end_), 2 * MEBIBYTE + 1024);
    EXPECT_EQ(io_next_data(fd_.get(), 2 * MEBIBYTE + 1024, end_), end_);
}

TEST_F(overlay_over_holes, the_search_stops_at_the_given_end) {
    write_text(fd_.get(), 2 * MEBIBYTE, std::string(1024, 'X'));
    EXPECT_EQ(io_next_data(fd_.get(), MEBIBYTE + 65536, 2 * MEBIBYTE), 2 * MEBIBYTE);
    EXPECT_EQ(io_next_hole(fd_.get(), 2 * MEBIBYTE, 2 * MEBIBYTE + 8), 2 * MEBIBYTE + 8);
}

TEST_F(overlay_over_holes, kept_blocks_after_data_of_the_disk_make_one_stretch) {
    const uint64_t hole = io_next_hole(fd_.get(), MEBIBYTE, end_);
    write_text(fd_.get(), hole, std::string(600, 'X'));  // two blocks
    EXPECT_EQ(io_next_hole(fd_.get(), MEBIBYTE, end_), hole + 1024);
}

TEST_F(overlay_over_holes, what_lies_between_the_disks_end_and_a_later_write_is_a_hole) {
    write_text(fd_.get(), 5 * MEBIBYTE, "XYZ");
    const uint64_t end = 6 * MEBIBYTE;
    EXPECT_EQ(io_next_data(fd_.get(), 2 * MEBIBYTE, end), 5 * MEBIBYTE);
    EXPECT_EQ(io_next_data(fd_.get(), 4 * MEBIBYTE, end), 5 * MEBIBYTE);
    EXPECT_EQ(io_next_hole(fd_.get(), 4 * MEBIBYTE, end), 4 * MEBIBYTE);
    EXPECT_EQ(io_next_hole(fd_.get(), 5 * MEBIBYTE, end), 5 * MEBIBYTE + 3);  // the end
    EXPECT_EQ(io_next_data(fd_.get(), 5 * MEBIBYTE + 3, end), end);
    EXPECT_EQ(io_next_hole(fd_.get(), 5 * MEBIBYTE + 3, end), end);
}

TEST_F(overlay_over_letters, a_write_past_the_limit_ends_short_and_then_fails_for_want_of_memory) {
    const io_overlay overlay(2);
    const scoped_fd fd = open_through_seam(file_.path());
    const std::string text(1536, 'X');
    EXPECT_EQ(io_write_at(fd.get(), text.data(), text.size(), 256), 768);  // 256 and 512 bytes
    EXPECT_TRUE(overlay.ran_out());
    EXPECT_EQ(io_write_at(fd.get(), "Y", 1, 1024), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(overlay.block_count(), 2u);
    write_text(fd.get(), 0, "Z");  // a block that is there
    EXPECT_EQ(read_text(fd.get(), 0, 1), "Z");
    EXPECT_EQ(read_text(fd.get(), 255, 2), "aX");
    EXPECT_EQ(read_text(fd.get(), 1023, 2), "X");  // nothing past the end of the file
}

TEST_F(overlay_over_letters, at_its_limit_it_has_not_run_out) {
    const io_overlay overlay(2);
    const scoped_fd fd = open_through_seam(file_.path());
    write_text(fd.get(), 0, std::string(1024, 'X'));
    EXPECT_FALSE(overlay.ran_out());
}

TEST_F(overlay_over_letters, files_are_opened_for_reading_only_and_nothing_is_created) {
    const scratch_dir dir;
    const std::string absent = dir.file("absent");
    const struct {
        std::string path;
        int flags;
        int error;  // 0: it is opened
    } rows[] = {{file_.path(), O_RDWR, 0},
                {file_.path(), O_WRONLY, 0},
                {file_.path(), O_RDONLY, 0},
                {file_.path(), O_RDWR | O_CREAT, 0},
                {file_.path(), O_RDWR | O_CREAT | O_EXCL, EEXIST},
                {file_.path(), O_RDWR | O_TRUNC, EROFS},
                {file_.path(), O_RDONLY | O_TRUNC, EROFS},
                {file_.path(), O_WRONLY | O_APPEND, EROFS},
                {absent, O_RDWR, ENOENT},
                {absent, O_RDWR | O_CREAT, EROFS},
                {absent, O_RDWR | O_CREAT | O_EXCL, EROFS},
                {absent, O_RDWR | O_CREAT | O_TRUNC, EROFS},
                {dir.path(), O_RDWR | O_TMPFILE, EROFS},
                {dir.path(), O_RDWR, EISDIR},
                {dir.path(), O_RDONLY | O_DIRECTORY, 0}};
    const io_overlay overlay(PLENTY);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path + " " + std::to_string(row.flags));
        errno = 0;
        const int fd = io_open(row.path.c_str(), row.flags, 0600);
        EXPECT_EQ(fd > 0 ? 0 : errno, row.error);
        if (fd > 0) {
            EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
            EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
            io_close(fd);
        }
    }
    EXPECT_FALSE(file_exists(absent));
    EXPECT_EQ(file_.size(), 1024u);
}

TEST_F(overlay_over_letters, whatever_would_change_names_sizes_or_owners_is_refused) {
    const scratch_dir dir;
    const std::string other = dir.file("other");
    const io_overlay overlay(PLENTY);
    const int fd = file_.fd();
    const char* const path = file_.path();
    const auto refused = [](int result) { return result == -1 && errno == EROFS; };
    EXPECT_TRUE(refused(io_truncate(fd, 0)));
    EXPECT_TRUE(refused(io_rename(path, other.c_str())));
    EXPECT_TRUE(refused(io_link(path, other.c_str())));
    EXPECT_TRUE(refused(io_unlink(path)));
    EXPECT_TRUE(refused(io_mkdir(other.c_str(), 0700)));
    EXPECT_TRUE(refused(io_set_owner(fd, 0, 0)));
    EXPECT_TRUE(refused(io_set_mode(fd, 0644)));
    EXPECT_TRUE(refused(io_allow(io_call::allocate) ? 0 : -1));
    EXPECT_TRUE(io_allow(io_call::spawn));
    struct stat64 status = {};
    EXPECT_EQ(io_stat(path, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(status.st_size, 1024);
    EXPECT_FALSE(file_exists(other));
}

TEST_F(overlay_over_letters, who_opened_for_reading_cannot_write) {
    const io_overlay overlay(PLENTY);
    const scoped_fd fd = open_through_seam(file_.path(), O_RDONLY);
    EXPECT_EQ(io_write_at(fd.get(), "X", 1, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(io_write(fd.get(), "X", 1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(read_text(fd.get(), 0, 1), "a");
}

TEST_F(overlay_over_letters, a_closed_descriptor_is_forgotten) {
    const io_overlay overlay(PLENTY);
    const int fd = io_open(file_.path(), O_RDWR, 0);
    io_close(fd);
    EXPECT_EQ(io_write_at(fd, "X", 1, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(open(file_.path(), O_RDONLY | O_CLOEXEC), fd);  // the number, past the seam
    EXPECT_EQ(io_write_at(fd, "X", 1, 0), -1);
    EXPECT_EQ(errno, EBADF);
    close(fd);
}

TEST(overlay, only_files_can_be_written) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const io_overlay overlay(PLENTY);
    EXPECT_EQ(io_write_at(ends[1], "X", 1, 0), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(write(ends[1], "Y", 1), 1);
    char byte = 0;
    EXPECT_EQ(io_read(ends[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'Y');
    close(ends[0]);
    close(ends[1]);
}

TEST(overlay, an_offset_past_the_largest_is_refused) {
    const scratch_file file(10);
    const io_overlay overlay(PLENTY);
    const scoped_fd fd = open_through_seam(file.path());
    char byte = 0;
    EXPECT_EQ(io_write_at(fd.get(), "X", 1, uint64_t{1} << 63), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(io_read_at(fd.get(), &byte, 1, uint64_t{1} << 63), -1);
    EXPECT_EQ(io_write_at(fd.get(), "XY", 2, (uint64_t{1} << 63) - 2), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(io_size(fd.get()), 10);
}

TEST(overlay, a_sync_succeeds_without_a_system_call) {
    EXPECT_EQ(io_sync(-1), -1);
    EXPECT_EQ(io_sync_file_system(-1), -1);
    const io_overlay overlay(PLENTY);
    EXPECT_EQ(io_sync(-1), 0);
    EXPECT_EQ(io_sync_file_system(-1), 0);
}

TEST(overlay, a_lock_that_another_holds_succeeds_and_none_is_taken) {
    const scratch_dir dir;
    const int holder = open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(holder, LOCK_EX | LOCK_NB), 0);
    const io_overlay overlay(PLENTY);
    const scoped_fd fd = open_through_seam(dir.path().c_str(), O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(io_lock(fd.get()), 0);
    EXPECT_EQ(flock(holder, LOCK_UN), 0);
    EXPECT_EQ(io_lock(fd.get()), 0);
    EXPECT_EQ(flock(holder, LOCK_EX | LOCK_NB), 0);
    close(holder);
}

TEST_F(overlay_over_letters, a_close_syncs_what_was_written_through_its_descriptor) {
    const io_overlay overlay(PLENTY);
    const int written = io_open(file_.path(), O_RDWR, 0);
    const int clean = io_open(file_.path(), O_RDWR, 0);
    write_text(written, 0, "X");
    EXPECT_TRUE(io_was_written(written));
    EXPECT_FALSE(io_was_written(clean));
    const io_fault_at syncs(0, 0, {io_call::sync});
    close_synced(clean);
    EXPECT_EQ(syncs.calls(), 0u);
    close_synced(written);
    EXPECT_EQ(syncs.calls(), 1u);
}

TEST_F(overlay_over_letters, a_call_that_a_test_makes_fail_does_not_reach_the_overlay) {
    const io_overlay overlay(PLENTY);
    const scoped_fd fd = open_through_seam(file_.path());
    const struct {
        io_call kind;
        int (*call)(int fd);
    } rows[] = {
        {io_call::write, [](int to) { return static_cast<int>(io_write_at(to, "X", 1, 0)); }},
        {io_call::write, [](int to) { return static_cast<int>(io_write(to, "X", 1)); }},
        {io_call::read,
         [](int from) {
             char byte = 0;
             return static_cast<int>(io_read_at(from, &byte, 1, 0));
         }},
        {io_call::sync, [](int to) { return io_sync(to); }},
        {io_call::lock, [](int to) { return io_lock(to); }},
        {io_call::truncate, [](int to) { return io_truncate(to, 0); }},
    };
    for (const auto& row : rows) {
        const io_fault_at fault(1, EIO, {row.kind});
        EXPECT_EQ(row.call(fd.get()), -1);
        EXPECT_EQ(errno, EIO);
    }
    EXPECT_EQ(overlay.block_count(), 0u);
}

TEST_F(overlay_over_letters, a_transfer_that_a_test_cuts_moves_half) {
    const io_overlay overlay(PLENTY);
    const scoped_fd fd = open_through_seam(file_.path());
    {
        const io_fault_at half(1, 0, {io_call::write});
        EXPECT_EQ(io_write_at(fd.get(), "WXYZ", 4, 0), 2);
    }
    EXPECT_EQ(read_text(fd.get(), 0, 4), "WXaa");
    char text[4] = {};
    const io_fault_at half(1, 0, {io_call::read});
    EXPECT_EQ(io_read_at(fd.get(), text, 4, 0), 2);
}

// The memory of a process is a file whose first bytes cannot be read.
TEST(overlay, a_part_of_a_block_that_the_disk_cannot_give_is_not_written) {
    const io_overlay overlay(PLENTY);
    const scoped_fd fd = open_through_seam("/proc/self/mem");
    EXPECT_EQ(io_write_at(fd.get(), "X", 1, 5), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(overlay.block_count(), 0u);
    EXPECT_FALSE(overlay.ran_out());
    write_text(fd.get(), 0, std::string(512, 'X'));  // a whole block needs nothing of the disk
    EXPECT_EQ(read_text(fd.get(), 510, 2), "XX");
}

// A file of 16 KiB with holes, and the same bytes in memory; any reads and writes on both.
class overlay_by_chance : public testing::TestWithParam<unsigned> {
protected:
    static constexpr size_t ROOM = 24576;
    overlay_by_chance() : state_(GetParam()) {
        for (const size_t at : {size_t{0}, size_t{4096}, size_t{12000}}) {
            const std::string text(700, static_cast<char>('a' + at % 26));
            file_.write_bytes(at, text.data(), text.size());
            model_.replace(at, text.size(), text);
        }
    }
    size_t below(size_t end) {
        state_ = state_ * 6364136223846793005 + 1442695040888963407;
        return static_cast<size_t>(state_ >> 33) % end;
    }
    void write_somewhere(int fd) {
        const size_t at = below(ROOM - 1);
        const size_t len = std::min(1 + below(2000), ROOM - at);
        const std::string text(len, static_cast<char>('A' + below(26)));
        write_text(fd, at, text);
        model_.resize(std::max(model_.size(), at + len), '\0');
        model_.replace(at, len, text);
    }
    void compare_somewhere(int fd) {
        const size_t at = below(ROOM);
        const size_t len = below(3000);
        const std::string expected = at < model_.size() ? model_.substr(at, len) : "";
        EXPECT_EQ(read_text(fd, at, len), expected) << at << "+" << len;
        EXPECT_EQ(io_size(fd), static_cast<int64_t>(model_.size()));
    }
    // Data and holes take turns up to the end, and what lies in a hole is zero.
    void walk_over_holes(int fd) {
        uint64_t at = 0;
        while (at < model_.size()) {
            const uint64_t data = io_next_data(fd, at, model_.size());
            const std::string hole = model_.substr(at, data - at);
            EXPECT_EQ(hole, std::string(hole.size(), '\0')) << at;
            at = data < model_.size() ? io_next_hole(fd, data, model_.size()) : data;
            ASSERT_TRUE(at > data || at == model_.size());
        }
        EXPECT_EQ(at, model_.size());
    }
    scratch_file file_{16384};
    std::string model_ = std::string(16384, '\0');

private:
    uint64_t state_;
};

TEST_P(overlay_by_chance, reads_give_what_was_written_last) {
    const io_overlay overlay(PLENTY);
    const scoped_fd one = open_through_seam(file_.path());
    const scoped_fd other = open_through_seam(file_.path());
    const std::string disk = disk_text(file_, 0, ROOM);
    for (int i = 0; i < 12; i++) {
        write_somewhere(i % 2 == 0 ? one.get() : other.get());
        compare_somewhere(one.get());
        compare_somewhere(other.get());
        walk_over_holes(one.get());
    }
    EXPECT_EQ(disk_text(file_, 0, ROOM), disk);
}

INSTANTIATE_TEST_SUITE_P(seeds, overlay_by_chance, testing::Range(1u, 101u));
