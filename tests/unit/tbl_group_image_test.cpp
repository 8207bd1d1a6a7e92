#include "tbl/tbl_group_image.h"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <iterator>

#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/io_outage.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/pool_files.h"
#include "tbl/tbl_file.h"
#include "tbl/tbl_freelist.h"

// Group 3: lpas 12288 to 16383. 12288 = 48 * 252 + 192: its first entry has slot 192 of block 48,
// so its entries 0 to 59 lie in block 48, 60 to 311 in block 49, 312 to 563 in block 50, ...,
// 4092 to 4095 in slots 0 to 3 of block 65. Eighteen blocks.
static constexpr uint64_t GROUP = 3;
static constexpr uint64_t BASE = 12288;
static constexpr uint64_t FIRST_BLOCK = 48;
static constexpr uint64_t LAST_BLOCK = 65;
static constexpr uint32_t WRONG_CHECKSUM = 0x11111111;
static constexpr uint32_t FOREIGN_BYTES = 0xDEADBEEF;

static uint64_t block_offset(uint64_t block) {
    return (block + 2048) * 512;
}

static bool is_all_zero(const tbl_group_image& image) {
    return std::all_of(std::begin(image.words), std::end(image.words),
                       [](uint16_t word) { return word == 0; });
}

// Blocks hold 252 entries.
static void set_entry(tbl_group_image* image, uint32_t offset, tbl_entry entry) {
    image->words[offset] = entry.word;
    image->changed |= 1u << ((image->first_slot + offset) / 252);
}

static void mark_nonzero(tbl_group_image* image) {
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        if (image->words[offset] != 0) {
            set_entry(image, offset, tbl_group_get(image, offset));
        }
    }
}

// Every block of the group carries a wrong checksum, and foreign bytes before it: a block that is
// written shows.
class tbl_group_image_file : public testing::Test {
protected:
    tbl_group_image_file() {
        for (uint64_t block = FIRST_BLOCK; block <= LAST_BLOCK; block++) {
            pool_.tbl_file.write_at(block_offset(block) + 504, FOREIGN_BYTES);
            pool_.tbl_file.write_at(block_offset(block) + 508, WRONG_CHECKSUM);
        }
    }

    // The blocks, by number, that no longer have the checksum they came with.
    std::vector<uint64_t> written_blocks() const {
        std::vector<uint64_t> blocks;
        for (uint64_t block = FIRST_BLOCK; block <= LAST_BLOCK; block++) {
            if (pool_.tbl_file.read_at<uint32_t>(block_offset(block) + 508) != WRONG_CHECKSUM) {
                blocks.push_back(block);
            }
        }
        return blocks;
    }
    std::string all_bytes() const {
        return hex_of(pool_.tbl_file.bytes(block_offset(FIRST_BLOCK - 1), 20 * 512));
    }

    pool_files pool_;
    tbl_group_image image_{};
    log_capture log_;
};

TEST_F(tbl_group_image_file, entries_come_from_their_places) {
    pool_.set_tbl(BASE - 1, 0x8111);
    pool_.set_tbl(BASE, 0x8222);
    pool_.set_tbl(BASE + 59, 0x8333);
    pool_.set_tbl(BASE + 60, 0x8444);
    pool_.set_tbl(BASE + 4095, 0x8555);
    pool_.set_tbl(BASE + 4096, 0x8666);
    ASSERT_TRUE(tbl_group_load(current_tbl.fd, &image_, GROUP));
    EXPECT_EQ(tbl_group_get(&image_, 0).word, 0x8222);
    EXPECT_EQ(tbl_group_get(&image_, 1).word, 0);
    EXPECT_EQ(tbl_group_get(&image_, 59).word, 0x8333);
    EXPECT_EQ(tbl_group_get(&image_, 60).word, 0x8444);
    EXPECT_EQ(tbl_group_get(&image_, 61).word, 0);
    EXPECT_EQ(tbl_group_get(&image_, 4095).word, 0x8555);
    EXPECT_FALSE(is_all_zero(image_));
}

TEST_F(tbl_group_image_file, what_neighbours_hold_in_a_shared_block_is_not_the_groups) {
    pool_.set_tbl(BASE - 1, 0x8111);     // block 48
    pool_.set_tbl(BASE + 4096, 0x8666);  // block 65
    ASSERT_TRUE(tbl_group_load(current_tbl.fd, &image_, GROUP));
    EXPECT_TRUE(is_all_zero(image_));
    mark_nonzero(&image_);
    EXPECT_TRUE(tbl_group_store(current_tbl.fd, &image_));
    EXPECT_EQ(written_blocks(), std::vector<uint64_t>{});
}

TEST_F(tbl_group_image_file, entries_past_the_end_of_the_file_are_zero) {
    memset(&image_, 0xff, sizeof image_);
    ASSERT_TRUE(tbl_group_load(current_tbl.fd, &image_, GROUP + 1));  // from block 65 on
    EXPECT_TRUE(is_all_zero(image_));
    ASSERT_TRUE(tbl_group_load(current_tbl.fd, &image_, GROUP + 2));
    EXPECT_TRUE(is_all_zero(image_));
}

TEST_F(tbl_group_image_file, only_changed_blocks_are_written) {
    ASSERT_TRUE(tbl_group_load(current_tbl.fd, &image_, GROUP));
    set_entry(&image_, 60, {0x8001});    // block 49
    set_entry(&image_, 312, {0x8002});   // block 50
    set_entry(&image_, 1100, {0});       // block 53, the word it had
    set_entry(&image_, 4092, {0x8003});  // block 65
    ASSERT_TRUE(tbl_group_store(current_tbl.fd, &image_));
    EXPECT_EQ(written_blocks(), (std::vector<uint64_t>{49, 50, 53, 65}));
    EXPECT_EQ(pool_.tbl(BASE + 60), 0x8001);
    EXPECT_EQ(pool_.tbl(BASE + 312), 0x8002);
    EXPECT_EQ(pool_.tbl(BASE + 4092), 0x8003);
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(tbl_group_image_file, a_stored_block_has_its_checksum_and_keeps_what_is_not_the_groups) {
    pool_.set_tbl(BASE - 1, 0x8111);
    pool_.set_tbl(BASE + 4096, 0x8666);
    ASSERT_TRUE(tbl_group_load(current_tbl.fd, &image_, GROUP));
    set_entry(&image_, 0, {0x8001});
    set_entry(&image_, 4095, {0x8001});
    ASSERT_TRUE(tbl_group_store(current_tbl.fd, &image_));
    EXPECT_EQ(pool_.tbl(BASE - 1), 0x8111);
    EXPECT_EQ(pool_.tbl(BASE + 4096), 0x8666);
    for (const uint64_t block : {FIRST_BLOCK, LAST_BLOCK}) {
        data_node node{};
        EXPECT_EQ(pool_.tbl_file.read_at<uint32_t>(block_offset(block) + 504), FOREIGN_BYTES);
        EXPECT_EQ(tarn_read_data_node(current_tbl.fd, &node, block), 0);
    }
}

TEST_F(tbl_group_image_file, what_was_stored_is_not_stored_again) {
    ASSERT_TRUE(tbl_group_load(current_tbl.fd, &image_, GROUP));
    set_entry(&image_, 0, {0x8001});
    ASSERT_TRUE(tbl_group_store(current_tbl.fd, &image_));
    const io_fault_at writes(0, 0, {io_call::write});
    EXPECT_TRUE(tbl_group_store(current_tbl.fd, &image_));
    EXPECT_EQ(writes.calls(), 0u);
}

TEST_F(tbl_group_image_file, marks_take_the_blocks_with_an_entry_that_is_not_zero) {
    pool_.set_tbl(BASE + 59, 0x0001);    // block 48
    pool_.set_tbl(BASE + 4091, 0x4000);  // block 64
    ASSERT_TRUE(tbl_group_load(current_tbl.fd, &image_, GROUP));
    mark_nonzero(&image_);
    ASSERT_TRUE(tbl_group_store(current_tbl.fd, &image_));
    EXPECT_EQ(written_blocks(), (std::vector<uint64_t>{48, 64}));
}

TEST_F(tbl_group_image_file, marks_take_the_blocks_with_a_free_entry) {
    pool_.fill_group(GROUP, 0x8001);
    pool_.set_tbl(BASE + 60, 0x7fff);  // block 49
    pool_.set_tbl(BASE + 4095, 0);     // block 65
    ASSERT_TRUE(tbl_group_load(current_tbl.fd, &image_, GROUP));
    tbl_group_mark_free(&image_);
    ASSERT_TRUE(tbl_group_store(current_tbl.fd, &image_));
    EXPECT_EQ(written_blocks(), (std::vector<uint64_t>{49, 65}));
}

TEST_F(tbl_group_image_file, no_table_holds_a_group_past_the_last_one) {
    EXPECT_FALSE(tbl_group_load(current_tbl.fd, &image_, 0x1F800000));
    EXPECT_FALSE(tbl_group_load(current_tbl.fd, &image_, ~uint64_t{0}));
    EXPECT_FALSE(tbl_group_load(0, &image_, GROUP));
    EXPECT_TRUE(log_.lines().empty());
}

TEST(tbl_group_image, the_last_group_of_the_table_ends_with_its_last_block) {
    scratch_file table(0x40000100000);
    tbl_group_image image{};
    ASSERT_TRUE(tbl_group_load(table.fd(), &image, 0x1F7FFFFF));
    set_entry(&image, 4095, {0x8001});
    ASSERT_TRUE(tbl_group_store(table.fd(), &image));
    EXPECT_EQ(table.size(), 0x40000100000u);
    EXPECT_EQ(table.read_at<uint16_t>(0x40000100000 - 512 + 502), 0x8001);  // slot 251
}

TEST_F(tbl_group_image_file, the_single_entry_path_takes_no_image) {
    const single_entry_path path;
    EXPECT_FALSE(tbl_group_load(current_tbl.fd, &image_, GROUP));
}

TEST_F(tbl_group_image_file, transfers_that_move_a_part_are_continued) {
    pool_.set_tbl(BASE + 4095, 0x8005);
    for (uint64_t n = 1;; n++) {
        const auto count = static_cast<uint16_t>(n);
        const io_fault_at fault(n, 0, {io_call::read, io_call::write});
        ASSERT_TRUE(tbl_group_load(current_tbl.fd, &image_, GROUP));
        ASSERT_EQ(tbl_group_get(&image_, 4095).word, 0x8005);
        set_entry(&image_, 60, {count});
        set_entry(&image_, 312, {count});
        ASSERT_TRUE(tbl_group_store(current_tbl.fd, &image_));
        ASSERT_EQ(pool_.tbl(BASE + 60), count);
        ASSERT_EQ(pool_.tbl(BASE + 312), count);
        if (!fault.fired()) {
            EXPECT_EQ(fault.calls(), 2u);  // the group is read once; both blocks are written once
            break;
        }
    }
}

TEST_F(tbl_group_image_file, a_transfer_that_fails_is_a_result_and_no_line) {
    pool_.set_tbl(BASE + 4095, 0x8005);
    for (uint64_t n = 1;; n++) {
        const io_fault_at fault(n, EIO);
        const bool loaded = tbl_group_load(current_tbl.fd, &image_, GROUP);
        if (loaded) {
            set_entry(&image_, 60, {0x8001});
        }
        const bool stored = loaded && tbl_group_store(current_tbl.fd, &image_);
        ASSERT_EQ(stored, !fault.fired());
        ASSERT_TRUE(log_.lines().empty());
        if (!fault.fired()) {
            EXPECT_EQ(fault.calls(), 2u);  // one read, one write
            break;
        }
    }
    keep_journal_forget();
}

// Whole groups are linked in an image; whichever call fails, going on entry by entry gives the
// bytes and the result of the single-entry path.
TEST_F(tbl_group_image_file, a_relink_whose_call_fails_ends_as_on_the_single_entry_path) {
    const auto lay_out = [this] {
        pool_.fill_group(GROUP, 0x8001);
        pool_.set_tbl(BASE + 7, 0x4123);
        pool_.set_tbl(BASE + 300, 0x1000);
        pool_.set_tbl(BASE + 4094, 0x2000);
    };
    std::string expected;
    {
        const single_entry_path path;
        uint16_t head = 99;
        lay_out();
        ASSERT_EQ(link_free_tbl_entry_in_group(GROUP, &head), 3);
        expected = all_bytes();
    }
    for (uint64_t n = 1;; n++) {
        lay_out();
        const io_fault_at fault(n, EIO);
        uint16_t head = 99;
        ASSERT_EQ(link_free_tbl_entry_in_group(GROUP, &head), 3) << n;
        ASSERT_EQ(head, 7) << n;
        ASSERT_EQ(all_bytes(), expected) << n;
        if (!fault.fired()) {
            break;
        }
    }
    EXPECT_TRUE(log_.lines().empty());
    keep_journal_forget();
}

TEST_F(tbl_group_image_file, a_relink_without_a_disk_logs_what_the_single_entry_path_logs) {
    pool_.set_tbl(BASE, 0x8001);
    for (const io_call kind : {io_call::read, io_call::write}) {
        const io_outage outage(kind);
        uint16_t head = 99;
        log_.clear();
        const int by_image = link_free_tbl_entry_in_group(GROUP, &head);
        const std::vector<std::string> lines = log_.lines();
        log_.clear();
        const single_entry_path path;
        EXPECT_EQ(by_image, link_free_tbl_entry_in_group(GROUP, &head));
        EXPECT_EQ(lines, log_.lines());
        EXPECT_FALSE(lines.empty());
    }
    keep_journal_forget();
}
