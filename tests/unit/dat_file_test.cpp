#include "volume/dat_file.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"

TEST(dat_placement, of_extents_of_a_mebibyte) {
    EXPECT_EQ(dat_file_number(5, 20), 0u);
    EXPECT_EQ(dat_byte_in_file(5, 20), 5u * 1048576 + 0x100000);
    EXPECT_EQ(dat_file_number(4194303, 20), 0u);
    EXPECT_EQ(dat_byte_in_file(4194303, 20), (uint64_t{1} << 42) - 1048576 + 0x100000);
    EXPECT_EQ(dat_file_number(4194304, 20), 1u);
    EXPECT_EQ(dat_byte_in_file(4194304, 20), 0x100000u);
}

TEST(dat_placement, of_the_smallest_and_the_largest_extents) {
    EXPECT_EQ(dat_file_number(uint64_t{1} << 33, 9), 1u);
    EXPECT_EQ(dat_byte_in_file((uint64_t{1} << 33) + 3, 9), 3u * 512 + 0x100000);
    EXPECT_EQ(dat_file_number(4096 * 7 + 1, 30), 7u);
    EXPECT_EQ(dat_byte_in_file(4096 * 7 + 1, 30), (uint64_t{1} << 30) + 0x100000);
    EXPECT_EQ(dat_file_number(~uint64_t{0}, 42), ~uint64_t{0});
    EXPECT_EQ(dat_byte_in_file(~uint64_t{0}, 42), 0x100000u);
}

class dat_file : public testing::Test {
protected:
    dat_file() { make_dat(path_, 0x77, 0); }

    scratch_dir dir_;
    std::string path_ = dir_.file("EP_DAT_00000");
    dat_handle handle_{};
    log_capture log_;
};

TEST_F(dat_file, keeps_the_header_and_the_name) {
    ASSERT_EQ(load_dat_handle(&handle_, path_.c_str()), 0);
    EXPECT_GT(handle_.fd, 0);
    EXPECT_EQ(handle_.name, path_);
    EXPECT_EQ(std::vector<uint8_t>(handle_.header.head.uuid, handle_.header.head.uuid + UUID_SIZE),
              uuid_of(0x77));
    handle_.buffer = new uint8_t[16];
    EXPECT_EQ(close_dat_handle(&handle_), 0);
    EXPECT_EQ(handle_.fd, 0);
    EXPECT_EQ(handle_.buffer, nullptr);
    EXPECT_EQ(close_dat_handle(&handle_), 0);
}

TEST_F(dat_file, null_arguments_are_logged_by_name) {
    EXPECT_EQ(load_dat_handle(&handle_, nullptr), -1);
    EXPECT_EQ(load_dat_handle(nullptr, nullptr), -1);
    EXPECT_EQ(load_dat_handle(nullptr, path_.c_str()), -1);
    EXPECT_EQ(close_dat_handle(nullptr), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: load_dat_handle(#) name NULL pointer\n",
                                       "ERR: load_dat_handle(#) name NULL pointer\n",
                                       "ERR: load_dat_handle(#) handle NULL pointer\n",
                                       "ERR: close_dat_handle(#) handle NULL pointer\n"}));
}

TEST_F(dat_file, a_missing_file_is_an_invalid_descriptor) {
    EXPECT_EQ(load_dat_handle(&handle_, (path_ + "x").c_str()), -1);
    EXPECT_TRUE(log_.has("ERR: load_dat_handle(#) dat file descriptor is invalid\n"));
    EXPECT_EQ(handle_.fd, 0);
}

TEST_F(dat_file, a_wrong_magic_code_fails) {
    set_header_u64(path_, 0, 8, 0x0886255218140634);
    EXPECT_EQ(load_dat_handle(&handle_, path_.c_str()), -1);
    EXPECT_TRUE(log_.has("mismatched MAGIC_CODE"));
    EXPECT_EQ(handle_.fd, 0);
}

TEST_F(dat_file, a_damaged_header_fails) {
    write_file_bytes(path_, 30, "x", 1);
    EXPECT_EQ(load_dat_handle(&handle_, path_.c_str()), -1);
    EXPECT_TRUE(log_.has("checksum error"));
    EXPECT_EQ(handle_.fd, 0);
}

TEST_F(dat_file, every_failing_call_fails_the_load_and_leaves_nothing_open) {
    std::filesystem::resize_file(path_, 1048576);
    failed_calls failed;
    for (uint64_t n = 1;; n++) {
        ASSERT_LT(n, 100u);
        const io_fault_at fault(n, EIO, {io_call::open, io_call::seek, io_call::read});
        const int result = load_dat_handle(&handle_, path_.c_str());
        if (!failed.add(fault)) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(failed.in_order(), "open seek read");
            break;
        }
        EXPECT_EQ(result, -1);
        EXPECT_EQ(handle_.fd, 0);
    }
    EXPECT_EQ(close_dat_handle(&handle_), 0);
}

TEST(dat_path, has_five_digits_and_is_never_cut) {
    char path[PATH_TEXT_SIZE];
    EXPECT_EQ(dat_file_path(path, "/volume1", 4095), 0);
    EXPECT_STREQ(path, "/volume1/@EP/EP_DAT_04095");
    log_capture log;
    EXPECT_EQ(dat_file_path(path, std::string(4090, 'v').c_str(), 0), -1);
    EXPECT_TRUE(log.has("path does not fit"));
}
