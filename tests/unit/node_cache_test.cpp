#include "store/node_cache.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/scratch_file.h"

namespace {

constexpr uint64_t NODE_1 = 1048576 + 512;

// A file of three nodes; node 1 holds bytes ab and no checksum.
class node_cache_of_file : public testing::Test {
protected:
    node_cache_of_file() : file_(1048576 + 3 * 512) {
        const std::vector<uint8_t> payload(508, 0xAB);
        file_.write_bytes(NODE_1, payload.data(), payload.size());
        tarn_cache_node_init(&cache_);
    }
    int read(uint64_t node, size_t at) {
        return tarn_cache_node_read(&cache_, file_.fd(), &word_, node, at, sizeof word_);
    }
    int write(uint64_t node, size_t at, uint64_t word) {
        return tarn_cache_node_write(&cache_, file_.fd(), &word, node, at, sizeof word);
    }
    // `len` bytes of node 1 from byte `at` on.
    std::string node_1(size_t at, size_t len) { return hex_of(file_.bytes(NODE_1 + at, len)); }

    scratch_file file_;
    log_capture log_;
    node_cache cache_{};
    uint64_t word_ = 0;
};

}  // namespace

TEST_F(node_cache_of_file, is_empty_after_init_and_an_empty_one_is_not_flushed) {
    EXPECT_EQ(cache_.node_num, 0xFFFFFFFFFFFFFFFFu);
    const io_fault_at count(0, 0);
    EXPECT_EQ(tarn_cache_node_flush(&cache_, file_.fd()), -1);
    EXPECT_EQ(tarn_cache_node_zero(&cache_, file_.fd()), -1);
    EXPECT_EQ(count.calls(), 0u);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: tarn_cache_node_flush(#) flush empty cache\n",
                                       "ERR: tarn_cache_node_flush(#) flush empty cache\n"}));
}

TEST_F(node_cache_of_file, reads_a_node_once_for_all_its_entries) {
    const io_fault_at count(0, 0, {io_call::read});
    EXPECT_EQ(read(1, 0), 0);
    EXPECT_EQ(word_, 0xABABABABABABABABu);  // no checksum: accepted
    EXPECT_EQ(read(1, 496), 0);
    EXPECT_EQ(count.calls(), 1u);
    EXPECT_EQ(read(0, 0), 0);
    EXPECT_EQ(word_, 0u);
    EXPECT_EQ(read(1, 0), 0);
    EXPECT_EQ(count.calls(), 3u);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(node_cache_of_file, past_the_end_of_the_file_everything_is_zero) {
    EXPECT_EQ(read(1, 0), 0);
    word_ = 7;
    EXPECT_EQ(read(1000000, 0), 0);
    EXPECT_EQ(word_, 0u);
    EXPECT_EQ(cache_.node_num, 1000000u);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(node_cache_of_file, a_mismatched_node_is_logged_once_and_its_entries_are_read_as_stored) {
    file_.write_at(NODE_1 + 508, uint32_t{1});
    EXPECT_EQ(tarn_cache_node_load(&cache_, file_.fd(), 1), 1);
    EXPECT_EQ(log_.count("data chksum mismatched - on-disk(00000001) != ("), 1u);
    EXPECT_EQ(tarn_cache_node_load(&cache_, file_.fd(), 1), 0);  // it stays the current one
    EXPECT_EQ(read(1, 8), 0);
    EXPECT_EQ(word_, 0xABABABABABABABABu);
    EXPECT_EQ(log_.lines().size(), 1u);

    tarn_cache_node_init(&cache_);
    EXPECT_EQ(read(1, 8), 0);  // a mismatch does not fail a read
    EXPECT_EQ(log_.count("data chksum mismatched"), 2u);
}

TEST_F(node_cache_of_file, a_write_changes_its_bytes_only_and_seals_the_node) {
    file_.write_at(NODE_1 + 508, uint32_t{1});
    EXPECT_EQ(write(1, 16, 0x1122334455667788u), 0);
    EXPECT_EQ(node_1(8, 24), hex_of(std::vector<uint8_t>{0xab, 0xab, 0xab, 0xab, 0xab, 0xab,  //
                                                         0xab, 0xab, 0x88, 0x77, 0x66, 0x55,
                                                         0x44, 0x33, 0x22, 0x11, 0xab, 0xab,  //
                                                         0xab, 0xab, 0xab, 0xab, 0xab, 0xab}));
    EXPECT_EQ(node_1(504, 4), "ab ab ab ab ");  // bytes of no entry
    tarn_cache_node_init(&cache_);
    EXPECT_EQ(tarn_cache_node_load(&cache_, file_.fd(), 1), 0);
    EXPECT_EQ(log_.count("data chksum mismatched"), 1u);  // from the first load only
    EXPECT_NE(file_.read_at<uint32_t>(NODE_1 + 508), 0u);
}

TEST_F(node_cache_of_file, every_write_is_one_write_of_512_bytes) {
    const io_fault_at count(0, 0, {io_call::write});
    EXPECT_EQ(write(1, 0, 1), 0);
    EXPECT_EQ(write(1, 8, 2), 0);
    EXPECT_EQ(write(3, 0, 3), 0);  // past the end: a whole node
    EXPECT_EQ(count.calls(), 3u);
    EXPECT_EQ(file_.size(), 1048576u + 4 * 512);
}

TEST_F(node_cache_of_file, zero_leaves_508_zero_bytes_and_their_checksum) {
    file_.write_at(NODE_1 + 508, uint32_t{1});
    ASSERT_EQ(tarn_cache_node_load(&cache_, file_.fd(), 1), 1);
    EXPECT_EQ(tarn_cache_node_zero(&cache_, file_.fd()), 0);
    EXPECT_EQ(node_1(0, 508), hex_of(std::vector<uint8_t>(508, 0)));
    EXPECT_EQ(file_.read_at<uint32_t>(NODE_1 + 508), 0x30FCEDC0u);
    tarn_cache_node_init(&cache_);
    EXPECT_EQ(tarn_cache_node_load(&cache_, file_.fd(), 1), 0);
}

TEST_F(node_cache_of_file, a_failed_load_keeps_the_old_number_and_clears_the_buffer) {
    ASSERT_EQ(tarn_cache_node_load(&cache_, file_.fd(), 1), 0);
    {
        const io_fault_at fault(1, EIO, {io_call::read});
        EXPECT_EQ(tarn_cache_node_load(&cache_, file_.fd(), 2), -1);
    }
    EXPECT_EQ(cache_.node_num, 1u);
    EXPECT_EQ(hex_of(cache_.buffer), hex_of(data_node{}));
    EXPECT_EQ(log_.lines(), log_lines({"ERR: tarn_read_data_node(#) read_fd(-1)\n"}));
}

TEST_F(node_cache_of_file, a_failed_read_returns_nothing_and_a_failed_load_writes_nothing) {
    word_ = 7;
    {
        const io_fault_at fault(1, EIO, {io_call::read});
        EXPECT_EQ(read(1, 0), -1);
    }
    EXPECT_EQ(word_, 7u);
    const io_fault_at fault(1, EIO, {io_call::read});
    EXPECT_EQ(write(1, 0, 1), -1);
    EXPECT_TRUE(fault.fired());
    EXPECT_EQ(node_1(0, 8), "ab ab ab ab ab ab ab ab ");
}

// Half of the node would be zeros without a checksum, and the next write would make that
// permanent.
TEST_F(node_cache_of_file, a_short_read_inside_the_file_does_not_blank_the_other_entries) {
    {
        const io_fault_at fault(1, 0, {io_call::read});
        EXPECT_EQ(write(1, 0, 1), -1);
    }
    EXPECT_EQ(node_1(0, 508), hex_of(std::vector<uint8_t>(508, 0xAB)));
    EXPECT_EQ(log_.lines(), log_lines({"ERR: tarn_read_data_node(#) read_fd(256)\n"}));
    {
        const io_fault_at fault(1, 0, {io_call::read});
        EXPECT_EQ(read(1, 400), -1);
    }
    EXPECT_EQ(write(1, 0, 1), 0);  // that read left no half node in the cache
    EXPECT_EQ(node_1(400, 8), "ab ab ab ab ab ab ab ab ");
}

TEST_F(node_cache_of_file, a_node_that_the_end_of_the_file_cuts_is_filled_with_zeros) {
    const uint8_t tail[3] = {1, 2, 3};
    file_.write_bytes(1048576 + 3 * 512, tail, sizeof tail);
    EXPECT_EQ(read(3, 0), 0);
    EXPECT_EQ(word_, 0x030201u);
    EXPECT_EQ(write(3, 8, 4), 0);
    EXPECT_EQ(file_.size(), 1048576u + 4 * 512);
    EXPECT_EQ(hex_of(file_.bytes(1048576 + 3 * 512, 16)),
              "01 02 03 00 00 00 00 00 04 00 00 00 00 00 00 00\n");
}

TEST_F(node_cache_of_file,
       whichever_call_of_a_write_fails_the_node_is_entirely_old_or_entirely_new) {
    const std::string before = node_1(0, 512);
    failed_calls failed;
    uint64_t n = 1;
    for (bool fired = true; fired; n++) {
        tarn_cache_node_init(&cache_);
        log_.clear();
        const io_fault_at fault(n, EIO);
        const int result = write(1, 0, 1);
        fired = failed.add(fault);
        EXPECT_EQ(result, fired ? -1 : 0) << n;
        EXPECT_EQ(log_.lines().empty(), !fired) << n;
        EXPECT_EQ(node_1(0, 512) == before, fired) << n;
    }
    EXPECT_EQ(failed.in_order(), "seek read seek write");
}

TEST_F(node_cache_of_file, a_node_past_the_largest_offset_is_neither_read_nor_written) {
    for (const uint64_t node : {uint64_t{1} << 54, uint64_t{1} << 55, ~uint64_t{0} - 1}) {
        EXPECT_LT(read(node, 0), 0);
        EXPECT_LT(write(node, 0, 1), 0);
    }
    EXPECT_EQ(log_.count("fail seek to 9223372036854775808"), 6u);
    EXPECT_EQ(file_.size(), 1048576u + 3 * 512);
    EXPECT_EQ(node_1(0, 508), hex_of(std::vector<uint8_t>(508, 0xAB)));
}
