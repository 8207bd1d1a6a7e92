#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "cli/punch_command.h"
#include "fri/fri_file.h"
#include "options.h"
#include "store/keep_journal.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/standard_input.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"
#include "volume/hole_punching.h"

// Extents of a mebibyte, six of them in the data file. Extents 0, 2 and 3 are in use.
class punch : public testing::Test {
protected:
    punch() {
        make_sample_volume(root(), 0x11);
        make_dat(dat(), 0x11, 6);
        for (const uint64_t lpa : {0, 2, 3}) {
            set_tbl_word(tbl(), lpa, 0x8001);
        }
    }
    ~punch() override {
        close_tbl();
        close_fri();
    }

    std::string root() const { return volumes_.volume(1); }
    std::string tbl() const { return root() + "/@EP/EP_TBL"; }
    std::string fri() const { return root() + "/@EP/EP_FRI"; }
    std::string dat() const { return root() + "/@EP/EP_DAT_00000"; }

    // Bytes that the file system has allocated for the data file.
    int64_t allocated() const {
        const int fd = open(dat().c_str(), O_RDONLY | O_CLOEXEC);
        fsync(fd);
        struct stat64 status = {};
        EXPECT_EQ(fstat64(fd, &status), 0);
        close(fd);
        return status.st_blocks * 512;
    }
    int64_t size() const {
        struct stat64 status = {};
        EXPECT_EQ(stat64(dat().c_str(), &status), 0);
        return status.st_size;
    }
    // Whether the whole mebibyte of an extent has that value.
    bool extent_is(uint64_t lpa, uint8_t value) const {
        const std::vector<uint8_t> bytes = file_bytes(dat(), (lpa + 1) << 20, 1u << 20);
        return bytes == std::vector<uint8_t>(1u << 20, value);
    }
    int punch_range(bool all_groups, uint64_t start, uint64_t length) {
        EXPECT_EQ(load_tbl(tbl().c_str()), 0);
        EXPECT_EQ(load_fri(fri().c_str()), 0);
        stdout_capture out;
        const int result = dat_cal_end_lpa(root().c_str(), all_groups, start, length);
        text_ = out.text();
        close_tbl();
        close_fri();
        return result;
    }

    sample_volumes volumes_;
    log_capture log_;
    std::string text_;
};

TEST_F(punch, frees_the_free_extents_of_the_range_and_leaves_their_neighbours) {
    const int64_t before = allocated();
    const std::vector<uint8_t> header = file_bytes(dat(), 0, 1u << 20);
    EXPECT_EQ(punch_range(false, 1, 4), 0);
    EXPECT_EQ(text_,
              "TARN_INFO: There are '1' DAT files\n"
              "TARN_INFO: Success to punch 2/2 (Success/Planned), lpa from '1' to '5'\n");
    EXPECT_LE(allocated(), before - 2 * 1048576 + 65536);  // metadata of the file system
    EXPECT_GE(allocated(), before - 2 * 1048576);
    EXPECT_EQ(size(), 7 * 1048576);
    EXPECT_TRUE(extent_is(1, 0));
    EXPECT_TRUE(extent_is(4, 0));
    for (const uint64_t lpa : {0, 2, 3, 5}) {
        EXPECT_TRUE(extent_is(lpa, 0xd5)) << lpa;
    }
    EXPECT_EQ(file_bytes(dat(), 0, 1u << 20), header);
}

TEST_F(punch, of_length_0_punches_nothing) {
    EXPECT_EQ(punch_range(false, 1, 0), 0);
    EXPECT_EQ(text_,
              "TARN_INFO: There are '1' DAT files\n"
              "TARN_INFO: Success to punch 0/0 (Success/Planned), lpa from '1' to '1'\n");
    EXPECT_TRUE(extent_is(1, 0xd5));
}

TEST_F(punch, past_the_data_files_fails_with_the_wrong_index) {
    EXPECT_EQ(punch_range(false, 4194304, 1), -1);
    EXPECT_EQ(text_,
              "TARN_INFO: There are '1' DAT files\n"
              "TARN_INFO: Wrong index('1') of DAT file\n");
}

// A hole of one size at steps of another would reach into extents in use.
TEST_F(punch, of_extents_whose_size_is_not_a_power_of_two_punches_nothing) {
    constexpr uint64_t ENTRY_SIZE = uint64_t{2} << 32;  // the field after the extent size
    set_header_u64(tbl(), 64, 68, ENTRY_SIZE | 3u << 20);
    EXPECT_EQ(punch_range(false, 1, 1), -1);
    EXPECT_EQ(text_, "TARN_INFO: There are '1' DAT files\n");
    EXPECT_TRUE(
        log_.has("ERR: punch_extent(#) cannot get a valid extent size for " + root() + "\n"));
    EXPECT_TRUE(extent_is(1, 0xd5));
}

TEST_F(punch, without_a_data_file_fails_with_the_wrong_index) {
    unlink(dat().c_str());
    EXPECT_EQ(punch_range(false, 1, 1), -1);
    EXPECT_EQ(text_,
              "TARN_INFO: There are '0' DAT files\n"
              "TARN_INFO: Wrong index('0') of DAT file\n");
}

TEST_F(punch, ends_at_the_first_failure_and_keeps_its_holes) {
    const uint64_t last_of_file = 4194303;
    const std::vector<uint8_t> extent(1u << 20, 0xd5);
    write_file_bytes(dat(), uint64_t{1} << 42, extent.data(), extent.size());
    EXPECT_EQ(punch_range(false, last_of_file, ~uint64_t{0} / 2), -1);
    EXPECT_TRUE(extent_is(last_of_file, 0));
    EXPECT_TRUE(text_.ends_with("TARN_INFO: Wrong index('1') of DAT file\n"));
}

TEST_F(punch, of_all_groups_takes_the_leading_initialised_ones_and_no_offset) {
    set_header_u64(fri(), 64, 72, 3);
    set_fri_word(fri(), 0, uint64_t{1} << 63);
    set_fri_word(fri(), 2, uint64_t{1} << 63);  // after one that was never initialised
    EXPECT_EQ(punch_range(true, 77, 99), 0);
    EXPECT_EQ(text_,
              "TARN_INFO: There are '1' DAT files\n"
              "TARN_INFO: Success to punch 4093/4093 (Success/Planned), lpa from '0' to "
              "'4096'\n");
    EXPECT_TRUE(extent_is(5, 0));
    EXPECT_TRUE(extent_is(0, 0xd5));
}

TEST_F(punch, of_all_groups_is_empty_when_group_0_is_not_initialised) {
    set_header_u64(fri(), 64, 72, 3);
    EXPECT_EQ(punch_range(true, 0, 0), 0);
    EXPECT_EQ(text_,
              "TARN_INFO: There are '1' DAT files\n"
              "TARN_INFO: Success to punch 0/0 (Success/Planned), lpa from '0' to '0'\n");
}

TEST_F(punch, of_all_groups_is_empty_when_the_index_cannot_be_read) {
    set_header_u64(fri(), 64, 72, 3);
    set_fri_word(fri(), 0, uint64_t{1} << 63);
    ASSERT_EQ(load_tbl(tbl().c_str()), 0);
    ASSERT_EQ(load_fri(fri().c_str()), 0);
    stdout_capture out;
    const io_fault_at fault(1, EIO, {io_call::read});
    EXPECT_EQ(dat_cal_end_lpa(root().c_str(), true, 0, 0), 0);
    EXPECT_TRUE(out.text().ends_with(" 0/0 (Success/Planned), lpa from '0' to '0'\n"));
    EXPECT_TRUE(log_.has("ERR: dat_cal_end_lpa(#) Fail to read fri entry, group_num 0\n"));
}

TEST_F(punch, of_all_groups_is_empty_when_a_later_group_cannot_be_read) {
    const single_entry_path path;
    set_header_u64(fri(), 64, 72, 3);
    set_fri_word(fri(), 0, uint64_t{1} << 63);
    set_fri_word(fri(), 1, uint64_t{1} << 63);
    ASSERT_EQ(load_tbl(tbl().c_str()), 0);
    ASSERT_EQ(load_fri(fri().c_str()), 0);
    stdout_capture out;
    const io_fault_at fault(2, EIO, {io_call::read});
    EXPECT_EQ(dat_cal_end_lpa(root().c_str(), true, 0, 0), 0);
    EXPECT_TRUE(out.text().ends_with(" 0/0 (Success/Planned), lpa from '0' to '0'\n"));
    EXPECT_TRUE(log_.has("ERR: dat_cal_end_lpa(#) Fail to read fri entry, group_num 1\n"));
    EXPECT_EQ(keep_journal_failures().count, 1u);  // an empty range would hide that
}

TEST_F(punch, of_all_groups_ends_at_the_index_s_group_count) {
    set_header_u64(fri(), 64, 72, 1);
    set_fri_word(fri(), 0, uint64_t{1} << 63);
    set_fri_word(fri(), 1, uint64_t{1} << 63);
    EXPECT_EQ(punch_range(true, 0, 0), 0);
    EXPECT_TRUE(text_.ends_with(" lpa from '0' to '4096'\n")) << text_;
}

TEST_F(punch, stops_at_a_hole_that_the_file_system_refuses) {
    ASSERT_EQ(load_tbl(tbl().c_str()), 0);
    stdout_capture out;
    const io_fault_at fault(2, EOPNOTSUPP, {io_call::allocate});
    EXPECT_EQ(dat_cal_end_lpa(root().c_str(), false, 0, 6), -1);
    EXPECT_EQ(out.text(),
              "TARN_INFO: There are '1' DAT files\n"
              "TARN_INFO: Fail to punch offset '5242880' in'0' DAT file\n");
    EXPECT_TRUE(extent_is(1, 0));
    EXPECT_TRUE(extent_is(4, 0xd5));
}

// A device has no holes. The one before it, in the first file, stays.
TEST_F(punch, stops_at_a_hole_that_the_platform_cannot_make) {
    constexpr uint64_t LAST_OF_FILE = 4194303;
    const std::vector<uint8_t> extent(1u << 20, 0xd5);
    write_file_bytes(dat(), uint64_t{1} << 42, extent.data(), extent.size());
    ASSERT_EQ(symlink("/dev/null", (root() + "/@EP/EP_DAT_00001").c_str()), 0);
    EXPECT_EQ(punch_range(false, LAST_OF_FILE, 3), -1);
    EXPECT_EQ(text_,
              "TARN_INFO: There are '2' DAT files\n"
              "TARN_INFO: Fail to punch offset '1048576' in'1' DAT file\n");
    EXPECT_TRUE(extent_is(LAST_OF_FILE, 0));
}

TEST_F(punch, stops_at_an_entry_of_the_table_that_cannot_be_read) {
    ASSERT_EQ(load_tbl(tbl().c_str()), 0);
    stdout_capture out;
    const io_fault_at fault(1, EIO, {io_call::read});
    EXPECT_EQ(dat_cal_end_lpa(root().c_str(), false, 1, 1), -1);
    EXPECT_TRUE(extent_is(1, 0xd5));
}

class punch_command : public punch {
protected:
    int run(std::vector<std::string> options, const std::string& reply) {
        const standard_input answer(reply);
        return run_as_it_is(std::move(options));
    }
    int run_on_terminal(std::vector<std::string> options, const std::string& typed) {
        int user = 0;
        int terminal = 0;
        EXPECT_EQ(openpty(&user, &terminal, nullptr, nullptr, nullptr), 0) << strerror(errno);
        EXPECT_EQ(write(user, typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
        const standard_input answer(terminal);
        const int result = run_as_it_is(std::move(options));
        close(user);
        return result;
    }
    int run_as_it_is(std::vector<std::string> options) {
        arguments words(std::move(options));
        stdout_capture out;
        const int result = punch_hole(words.count(), words.values());
        text_ = out.text();
        EXPECT_EQ(current_tbl.fd, 0);
        EXPECT_EQ(current_fri.fd, 0);
        return result;
    }
    static constexpr const char* QUESTION = "Do you wants to PUCH the data?(YES/NO) [NO]: ";
};

TEST_F(punch_command, punches_after_the_answer_yes) {
    EXPECT_EQ(run({"-p", root(), "-o", "1", "-l", "1"}, "YES\n"), 0);
    EXPECT_EQ(text_,
              QUESTION + ("TARN_INFO: PUNCH volume: " + root()) +
                  "\nTARN_INFO: There are '1' DAT files\n"
                  "TARN_INFO: Success to punch 1/1 (Success/Planned), lpa from '1' to '2'\n");
    EXPECT_TRUE(extent_is(1, 0));
    EXPECT_TRUE(extent_is(4, 0xd5));
}

TEST_F(punch_command, punches_nothing_for_any_other_answer) {
    for (const char* reply : {"yes\n", "YES", "", "\n", "Y\n", "YES \n", " YES\n", "YESSIR\n",
                              "NO\n", "YES\r\n", "YESYESYES\n", "NO, I SAID\nYES\n"}) {
        EXPECT_EQ(run({"-p", root(), "-o", "1", "-l", "1"}, reply), 0) << reply;
        EXPECT_EQ(text_, QUESTION) << reply;
    }
    EXPECT_TRUE(extent_is(1, 0xd5));
}

static bool has_terminals() {
    int user = -1;
    int terminal = -1;
    if (openpty(&user, &terminal, nullptr, nullptr, nullptr) != 0) {
        return false;
    }
    close(user);
    close(terminal);
    return true;
}

TEST_F(punch_command, reads_its_answer_from_a_terminal) {
    if (!has_terminals()) {
        GTEST_SKIP() << "no terminal for the answer: " << strerror(errno)
                     << " (is /dev/pts mounted?)";
    }
    EXPECT_EQ(run_on_terminal({"-p", root(), "-o", "1", "-l", "1"}, "yes\n"), 0);
    EXPECT_TRUE(extent_is(1, 0xd5));
    EXPECT_EQ(run_on_terminal({"-p", root(), "-o", "1", "-l", "1"}, "\x04"), 0);  // end of input
    EXPECT_TRUE(extent_is(1, 0xd5));
    EXPECT_EQ(run_on_terminal({"-p", root(), "-o", "1", "-l", "1"}, "YES\n"), 0);
    EXPECT_TRUE(extent_is(1, 0));
}

TEST_F(punch_command, punches_all_groups_with_a) {
    set_header_u64(fri(), 64, 72, 1);
    set_fri_word(fri(), 0, uint64_t{1} << 63);
    EXPECT_EQ(run({"-a", "-p", root()}, "YES\n"), 0);
    EXPECT_NE(text_.find("lpa from '0' to '4096'\n"), std::string::npos);
}

TEST_F(punch_command, logs_that_it_failed) {
    EXPECT_EQ(run({"-p", root(), "-o", "4194304", "-l", "1"}, "YES\n"), -1);
    EXPECT_TRUE(log_.has("ERR: punch_hole(#) Fail to PUNCH " + root() + "\n"));
}

TEST_F(punch_command, refuses_negative_numbers) {
    EXPECT_EQ(run({"-p", root(), "-o", "-1"}, "YES\n"), -1);
    EXPECT_EQ(run({"-p", root(), "-l", "-1"}, "YES\n"), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: punch_hole(#) Offset should equal or greater than zero\n",
                         "ERR: punch_hole(#) Length should equal or greater than zero\n"}));
    EXPECT_EQ(text_, "");
}

TEST_F(punch_command, logs_a_path_that_it_cuts) {
    const std::string path = "/volume1/" + std::string(4086, 'x');
    EXPECT_EQ(run({"-p", path}, "YES\n"), -1);
    EXPECT_FALSE(log_.has("cut to"));
    EXPECT_EQ(run({"-p", path + "x"}, "YES\n"), -1);
    EXPECT_TRUE(log_.has("ERR: punch_hole(#) path is cut to 4095 characters\n"));
}

TEST_F(punch_command, refuses_options_without_their_argument) {
    testing::internal::CaptureStderr();  // the scanner's own lines
    EXPECT_EQ(run({"-o"}, "YES\n"), -1);
    EXPECT_EQ(run({"-l"}, "YES\n"), -1);
    EXPECT_EQ(run({"-p"}, "YES\n"), -1);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(log_.lines(), log_lines({"ERR: punch_hole(#) Bad param for -o option\n",
                                       "ERR: punch_hole(#) Bad param for -l option\n",
                                       "ERR: punch_hole(#) Bad param for -p option\n"}));
}

TEST_F(punch_command, ignores_an_unknown_option) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(run({"-z", "-p", root()}, "NO\n"), 0);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(log_.lines(), log_lines({"ERR: punch_hole(#) UNKNOW cmd z\n"}));
    EXPECT_EQ(text_, QUESTION);
}

TEST_F(punch_command, asks_nothing_about_a_path_that_is_not_a_volume) {
    EXPECT_EQ(run({"-p", "/tmp"}, "YES\n"), -1);
    EXPECT_EQ(text_, "TARN_INFO: /tmp is not a VAAI volume\n");
}

TEST_F(punch_command, asks_nothing_when_a_file_does_not_load) {
    unlink(tbl().c_str());
    EXPECT_EQ(run({"-p", root()}, "YES\n"), -1);
    EXPECT_TRUE(log_.has("ERR: punch_hole(#) Fail to load TBL " + tbl() + "\n"));
    unlink(fri().c_str());
    EXPECT_EQ(run({"-p", root()}, "YES\n"), -1);
    EXPECT_TRUE(log_.has("ERR: punch_hole(#) Fail to load FRI " + fri() + "\n"));
    EXPECT_EQ(text_, "");
}
