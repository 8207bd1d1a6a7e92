#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>

#include "map/map_file.h"
#include "store/keep_journal.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/open_files.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"

namespace {

class map_create : public testing::Test {
protected:
    map_create() : old_(dir_.file("old")), new_(dir_.file("new")) {
        make_empty_file(old_);
        make_map(old_, uuid_of(0x11), uuid_of(0x9A));
    }
    scratch_dir dir_;
    std::string old_, new_;
    log_capture log_;
};

}  // namespace

TEST_F(map_create, computes_the_checksum_of_the_pool_table_again) {
    const std::string right = hex_of(file_bytes(old_, 4096 + 64, 64));
    ASSERT_EQ(load_map(old_.c_str()), 0);
    current_map.header.map_pool_cksum = 0x12345678;
    ASSERT_EQ(save_map(), 0);
    close_map();
    ASSERT_NE(hex_of(file_bytes(old_, 4096 + 64, 64)), right);
    EXPECT_EQ(create_map(new_.c_str(), old_.c_str()), 0);
    EXPECT_EQ(hex_of(file_bytes(new_, 4096 + 64, 64)), right);
    EXPECT_EQ(log_.lines(), log_lines({}));
    EXPECT_EQ(current_map.fd, 0);
}

TEST_F(map_create, syncs_the_new_map_and_not_the_old_one) {
    const io_fault_at syncs(0, 0, {io_call::sync});
    EXPECT_EQ(create_map(new_.c_str(), old_.c_str()), 0);
    EXPECT_EQ(syncs.calls(), 1u);
}

// The close has no result.
TEST_F(map_create, a_sync_that_fails_is_counted_as_a_failure_and_the_result_is_0) {
    keep_journal_forget();
    const io_fault_at fault(1, EIO, {io_call::sync});
    EXPECT_EQ(create_map(new_.c_str(), old_.c_str()), 0);
    EXPECT_EQ(keep_journal_failures().count, 1u);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: close_synced(#) Fail to sync " + new_ + ": Input/output error\n"}));
    keep_journal_forget();
}

TEST_F(map_create, logs_a_missing_old_map) {
    EXPECT_EQ(create_map(new_.c_str(), "/nonexistent"), -1);
    EXPECT_EQ(log_.last(), "ERR: create_map(#) Fail to load old map /nonexistent\n");
    EXPECT_FALSE(file_exists(new_));
}

TEST_F(map_create, closes_the_old_map_if_the_new_one_cannot_be_created) {
    const size_t before = open_files();
    EXPECT_EQ(create_map(old_.c_str(), old_.c_str()), -1);
    EXPECT_EQ(log_.last(), "ERR: create_map(#) " + old_ + " and " + old_ + " are the same file\n");
    EXPECT_EQ(open_files(), before);
    write_file_bytes(old_, 100, "x", 1);
    EXPECT_EQ(create_map(new_.c_str(), old_.c_str()), -1);
    EXPECT_EQ(log_.last(), "ERR: create_map(#) Fail to load old map " + old_ + "\n");
    EXPECT_EQ(open_files(), before);
    EXPECT_EQ(current_map.fd, 0);
}

TEST_F(map_create, a_pool_table_that_is_cut_off_or_impossibly_large_fails) {
    ASSERT_EQ(load_map(old_.c_str()), 0);
    current_map.header.map_pool_cnt = 0xFFFFFFFF;
    ASSERT_EQ(save_map(), 0);
    close_map();
    EXPECT_EQ(create_map(new_.c_str(), old_.c_str()), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: clone_map_pool_table(#) map_pool_cnt 4294967295 reaches past "
                         "the first mebibyte\n"}));
    make_map(old_, uuid_of(0x11), uuid_of(0x9A));
    std::filesystem::resize_file(old_, 8192 + 15);
    log_.clear();
    EXPECT_EQ(create_map(new_.c_str(), old_.c_str()), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: clone_map_pool_table(#) Fail to read the pool "
                                       "table, 16 bytes\n"}));
    EXPECT_EQ(current_map.fd, 0);
}

TEST_F(map_create, the_clone_of_a_pool_table_needs_both_files) {
    uint32_t checksum = 0;
    EXPECT_EQ(clone_map_pool_table(0, 0, 1, &checksum), -1);
    EXPECT_EQ(clone_map_pool_table(99, 0, 1, &checksum), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: clone_map_pool_table(#) fd NULL pointer\n",
                                       "ERR: clone_map_pool_table(#) ofd NULL pointer\n"}));
}
