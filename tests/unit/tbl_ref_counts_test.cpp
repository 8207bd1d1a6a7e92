#include "tbl/tbl_ref_counts.h"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <random>

#include "fri/fri_entries.h"
#include "store/data_node.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/io_outage.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/pool_files.h"
#include "tbl/tbl_entries.h"
#include "tbl/tbl_file.h"

static constexpr uint64_t FAR_GROUP = 70000;  // not found by its number alone
static constexpr uint32_t WRONG_CHECKSUM = 0x11111111;
static constexpr uint32_t FOREIGN_BYTES = 0xDEADBEEF;

static std::vector<uint64_t> touched;
static int touch_result = 0;

static int touch(uint64_t group) {
    touched.push_back(group);
    return touch_result;
}

class ref_counts : public testing::Test {
protected:
    ref_counts() {
        touched.clear();
        touch_result = 0;
    }
    ~ref_counts() override {
        EXPECT_EQ(close(), 0);
        keep_journal_forget();
    }

    void add(uint64_t lpa, unsigned times = 1) {
        for (unsigned i = 0; i < times; i++) {
            ASSERT_EQ(tbl_ref_counts_add(counts_, lpa, 0, &first_uses_), ref_result::counted)
                << lpa;
        }
    }
    int close() {
        const bool written = tbl_ref_counts_write(counts_);
        tbl_ref_counts_drop(counts_);
        counts_ = nullptr;
        return written ? 0 : -1;
    }
    void reopen() {
        ASSERT_EQ(close(), 0);
        counts_ = tbl_ref_counts_open(touch);
    }
    std::string table_bytes(uint64_t groups) const {
        return hex_of(pool_.tbl_file.bytes(1048576, (groups * 4096 / 252 + 1) * 512));
    }

    pool_files pool_;
    log_capture log_;
    tbl_ref_counts* counts_ = tbl_ref_counts_open(touch);
    uint64_t first_uses_ = 0;
};

TEST_F(ref_counts, are_written_at_the_end) {
    add(5, 2);
    add(4096);
    add(FAR_GROUP * 4096 + 9, 3);
    EXPECT_EQ(pool_.tbl(5), 0);
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(pool_.tbl(4), 0);
    EXPECT_EQ(pool_.tbl(5), 0x8002);
    EXPECT_EQ(pool_.tbl(4096), 0x8001);
    EXPECT_EQ(pool_.tbl(FAR_GROUP * 4096 + 9), 0x8003);
    EXPECT_TRUE(log_.lines().empty());
}

// A byte holds at most 255. Each count has a group of its own, so that each widens by itself,
// or does not.
TEST_F(ref_counts, stay_exact_where_a_byte_no_longer_holds_them) {
    const std::vector<unsigned> all = {1, 2, 253, 254, 255, 256, 257, 258, 511, 512, 4094, 4095};
    for (const uint64_t base : {uint64_t{0}, FAR_GROUP}) {
        for (size_t i = 0; i < all.size(); i++) {
            const uint64_t lpa = (base + i) * 4096 + 61 * i;
            add(lpa + 1, 3);
            add(lpa + 2000, 2);  // in another block, and never again
            add(lpa, all[i]);
            add(lpa + 2, 4);
        }
    }
    EXPECT_EQ(close(), 0);
    for (const uint64_t base : {uint64_t{0}, FAR_GROUP}) {
        for (size_t i = 0; i < all.size(); i++) {
            const uint64_t lpa = (base + i) * 4096 + 61 * i;
            EXPECT_EQ(pool_.tbl(lpa), 0x8000 | all[i]);
            EXPECT_EQ(pool_.tbl(lpa + 1), 0x8003);
            EXPECT_EQ(pool_.tbl(lpa + 2), 0x8004);
            EXPECT_EQ(pool_.tbl(lpa + 2000), 0x8002);
            EXPECT_EQ(pool_.tbl(lpa + 3), 0);
        }
    }
}

TEST_F(ref_counts, of_4096_extents_of_one_group_stay_exact) {
    for (unsigned offset = 0; offset < 4096; offset++) {
        add(3 * 4096 + offset, 250 + offset % 10);  // 250 to 259
    }
    EXPECT_EQ(close(), 0);
    for (unsigned offset = 0; offset < 4096; offset++) {
        ASSERT_EQ(pool_.tbl(3 * 4096 + offset), 0x8000 + 250 + offset % 10);
    }
    EXPECT_EQ(pool_.tbl(3 * 4096 - 1), 0);
    EXPECT_EQ(pool_.tbl(4 * 4096), 0);
}

TEST_F(ref_counts, reference_4096_is_refused_and_the_count_stays) {
    add(7, 4095);
    EXPECT_EQ(tbl_ref_counts_add(counts_, 7, 0, &first_uses_), ref_result::full);
    EXPECT_EQ(tbl_ref_counts_add(counts_, 7, 0, &first_uses_), ref_result::full);
    add(8);
    reopen();
    EXPECT_EQ(pool_.tbl(7), 0x8fff);
    EXPECT_EQ(tbl_ref_counts_add(counts_, 7, 0, &first_uses_), ref_result::full);
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(pool_.tbl(7), 0x8fff);
    EXPECT_EQ(pool_.tbl(8), 0x8001);
}

TEST_F(ref_counts, return_each_extent_that_had_no_reference_once) {
    add(5, 300);
    add(6);
    add(FAR_GROUP * 4096, 2);
    EXPECT_EQ(first_uses_, 3u);
    reopen();
    add(5);
    EXPECT_EQ(first_uses_, 3u);
    add(9);
    EXPECT_EQ(first_uses_, 4u);
}

TEST_F(ref_counts, add_to_what_the_table_has) {
    pool_.set_tbl(10, 0x8005);
    pool_.set_tbl(11, 0x7000);  // free, a tail, foreign bits
    pool_.set_tbl(12, 0x1000);
    pool_.set_tbl(4095, 0x80ff);
    add(10);
    add(11);
    add(4095, 2);
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(pool_.tbl(10), 0x8006);
    EXPECT_EQ(pool_.tbl(11), 0xe001);
    EXPECT_EQ(pool_.tbl(12), 0x1000);
    EXPECT_EQ(pool_.tbl(4095), 0x8101);
}

// Whatever the table held before, and wherever the references go.
TEST_F(ref_counts, give_the_bytes_that_references_one_by_one_give) {
    std::mt19937_64 random(20);
    for (unsigned round = 0; round < 4; round++) {
        std::vector<uint64_t> lpas;
        for (unsigned i = 0; i < 6000; i++) {
            const uint64_t hot = random() % 3 * 4096 + 100;
            lpas.push_back(random() % 4 == 0 ? hot : random() % (4 * 4096));
        }
        const auto lay_out = [this, round] {
            std::mt19937_64 words(round);
            for (uint64_t lpa = 0; lpa < 4 * 4096; lpa++) {
                const auto word = static_cast<uint16_t>(words());
                pool_.set_tbl(lpa, round % 2 == 0 || lpa < 2 * 4096 ? 0 : word & 0xf7ff);
            }
            for (uint64_t at = 1048576; at < 1048576 + 67 * 512; at += 512) {
                pool_.tbl_file.write_at(at + 504, FOREIGN_BYTES);
            }
            current_fri.header.fri_free_count = 5000;
            first_uses_ = 0;
        };
        lay_out();
        for (const uint64_t lpa : lpas) {
            ASSERT_EQ(tbl_entry_ref_inc(lpa), 0);
        }
        const std::string expected = table_bytes(4);
        const uint64_t free_count = current_fri.header.fri_free_count;
        lay_out();
        for (const uint64_t lpa : lpas) {
            add(lpa);
        }
        reopen();
        fri_take_free(first_uses_);
        EXPECT_EQ(current_fri.header.fri_free_count, free_count);
        ASSERT_EQ(table_bytes(4), expected) << round;
    }
}

TEST_F(ref_counts, write_the_blocks_they_change_and_no_others) {
    // lpas 12288 to 16383: blocks 48 to 65. 12288 + 60 is slot 0 of block 49.
    for (uint64_t block = 47; block <= 66; block++) {
        pool_.tbl_file.write_at((block + 2048) * 512 + 504, FOREIGN_BYTES);
        pool_.tbl_file.write_at((block + 2048) * 512 + 508, WRONG_CHECKSUM);
    }
    pool_.set_tbl(12287, 0x8111);  // the neighbour's, in block 48
    add(12288 + 60, 300);
    add(12288 + 2);
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(pool_.tbl(12287), 0x8111);
    for (uint64_t block = 47; block <= 66; block++) {
        const uint64_t at = (block + 2048) * 512;
        EXPECT_EQ(pool_.tbl_file.read_at<uint32_t>(at + 504), FOREIGN_BYTES);
        const bool written = pool_.tbl_file.read_at<uint32_t>(at + 508) != WRONG_CHECKSUM;
        EXPECT_EQ(written, block == 48 || block == 49) << block;
        data_node node{};
        EXPECT_EQ(tarn_read_data_node(current_tbl.fd, &node, block), written ? 0 : 1);
    }
}

TEST_F(ref_counts, touch_a_group_before_it_is_first_counted) {
    add(4096 + 5, 2);
    add(3);
    add(4096 + 6);
    add(FAR_GROUP * 4096, 2);
    EXPECT_EQ(touched, (std::vector<uint64_t>{1, 0, FAR_GROUP}));
}

TEST_F(ref_counts, count_nothing_in_a_group_that_cannot_be_touched) {
    touch_result = -1;
    EXPECT_EQ(tbl_ref_counts_add(counts_, 5, 0, &first_uses_), ref_result::touch_failed);
    EXPECT_EQ(tbl_ref_counts_add(counts_, 5, 0, &first_uses_), ref_result::touch_failed);
    EXPECT_EQ(touched, (std::vector<uint64_t>{0, 0}));
    EXPECT_EQ(first_uses_, 0u);
    touch_result = 0;
    add(5);
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(pool_.tbl(5), 0x8001);
}

TEST_F(ref_counts, leave_an_extent_past_the_table_to_the_single_entry_path) {
    EXPECT_EQ(tbl_ref_counts_add(counts_, 0x1F800000000, 0, &first_uses_), ref_result::no_entry);
    EXPECT_EQ(tbl_ref_counts_add(counts_, ~uint64_t{0}, 0, &first_uses_), ref_result::no_entry);
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(pool_.tbl_file.size(), 1048576u);
}

TEST_F(ref_counts, without_bulk_transfers_leave_every_entry_to_the_single_entry_path) {
    const single_entry_path path;
    EXPECT_EQ(tbl_ref_counts_add(counts_, 5, 0, &first_uses_), ref_result::no_entry);
    EXPECT_EQ(tbl_ref_counts_add(counts_, 5, 0, &first_uses_), ref_result::no_entry);
    EXPECT_EQ(touched, (std::vector<uint64_t>{0, 0}));
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(pool_.tbl_file.size(), 1048576u);
}

TEST_F(ref_counts, that_are_null_have_nothing_to_write) {
    EXPECT_TRUE(tbl_ref_counts_write(nullptr));
    tbl_ref_counts_drop(nullptr);
}

// As many groups as it takes, from the highest down. When the memory is full everything goes to the
// table, and counting continues from there.
TEST_F(ref_counts, are_written_when_the_memory_is_full_and_go_on) {
    const auto lpa_of = [](uint64_t i) { return (FAR_GROUP + 40000 - i) * 4096 + i % 4096; };
    add(5, 2);
    uint64_t count = 0;
    {
        const io_fault_at writes(0, 0, {io_call::write});
        while (writes.calls() == 0) {
            ASSERT_LT(count, 40000u);  // 160 MiB
            add(lpa_of(count), 2);
            count++;
        }
    }
    const uint64_t last = count - 1;  // found it full
    for (uint64_t i = 0; i < last; i++) {
        ASSERT_EQ(pool_.tbl(lpa_of(i)), 0x8002);
    }
    EXPECT_EQ(pool_.tbl(lpa_of(last)), 0);
    EXPECT_EQ(pool_.tbl(5), 0x8002);
    EXPECT_FALSE(tbl_ref_counts_add_in_place(counts_, 5, &first_uses_));
    add(5);
    add(lpa_of(0), 4000);  // in the table already
    add(lpa_of(last));
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(pool_.tbl(lpa_of(0)), 0x8000 + 4002);
    EXPECT_EQ(pool_.tbl(lpa_of(1)), 0x8002);
    EXPECT_EQ(pool_.tbl(lpa_of(last)), 0x8003);
    EXPECT_EQ(pool_.tbl(5), 0x8003);
}

// The step from a byte to a word takes memory as well.
TEST_F(ref_counts, stay_exact_when_the_memory_is_full_as_a_byte_overflows) {
    constexpr uint64_t most = REF_UNITS + 4;
    add(7);  // what lies beside that memory
    add(4096 + 7, 2);
    for (uint64_t i = 0; i < most; i++) {
        const uint64_t lpa = (FAR_GROUP + i) * 4096;
        add(lpa);
        if (i + 12 > most) {
            add(lpa + 1, 260);
            add(5 * 4096 + 9, 260);
        }
    }
    EXPECT_EQ(close(), 0);
    for (uint64_t i = 0; i < most; i++) {
        const uint64_t lpa = (FAR_GROUP + i) * 4096;
        ASSERT_EQ(pool_.tbl(lpa), 0x8001);
        ASSERT_EQ(pool_.tbl(lpa + 1), i + 12 > most ? 0x8000 + 260 : 0) << i;
    }
    EXPECT_EQ(pool_.tbl(5 * 4096 + 9), 0x8000 + 11 * 260);
    EXPECT_EQ(pool_.tbl(7), 0x8001);
    EXPECT_EQ(pool_.tbl(8), 0);
    EXPECT_EQ(pool_.tbl(4096 + 7), 0x8002);
}

// A counter has room for 253 references. Where it has none, or is not in memory, nothing changes.
TEST_F(ref_counts, are_added_in_place_where_a_counter_has_room) {
    const auto in_place = [this](uint64_t lpa) {
        return tbl_ref_counts_add_in_place(counts_, lpa, &first_uses_);
    };
    pool_.set_tbl(4096 + 9, 0x8001);
    EXPECT_FALSE(in_place(5));  // not in memory yet
    add(5);
    add(4096 + 5);
    EXPECT_EQ(first_uses_, 2u);
    EXPECT_FALSE(in_place(4096 + 5));  // that group was not empty
    EXPECT_FALSE(in_place(FAR_GROUP * 4096));
    EXPECT_FALSE(in_place(0x1F800000000));
    for (unsigned references = 2; references <= 253; references++) {
        ASSERT_TRUE(in_place(5)) << references;
    }
    EXPECT_FALSE(in_place(5));
    EXPECT_TRUE(in_place(6));
    EXPECT_EQ(first_uses_, 3u);
    add(5);
    reopen();
    EXPECT_EQ(pool_.tbl(5), 0x8000 | 254);
    EXPECT_EQ(pool_.tbl(6), 0x8001);
    EXPECT_EQ(pool_.tbl(4096 + 5), 0x8001);
    EXPECT_FALSE(in_place(5));  // the memory is empty again
}

// At every write of the table: nothing of a group is there before all lower ones are.
static struct {
    const pool_files* pool;
    std::vector<uint64_t> lpas;  // ascending, one of each group
    size_t written;
    unsigned writes;
} watched;

static io_verdict watch(io_call call, size_t wanted) {
    if (call == io_call::write) {
        watched.writes++;
        while (watched.written < watched.lpas.size() &&
               watched.pool->tbl(watched.lpas[watched.written]) != 0) {
            watched.written++;
        }
        for (size_t i = watched.written; i < watched.lpas.size(); i++) {
            EXPECT_EQ(watched.pool->tbl(watched.lpas[i]), 0) << "before " << watched.written;
        }
    }
    return {0, wanted};
}

TEST_F(ref_counts, are_written_in_ascending_order) {
    std::vector<uint64_t> lpas;
    for (uint64_t i = 0; i < 60; i++) {
        lpas.push_back((i < 40 ? i * 3 : FAR_GROUP + i * 7) * 4096 + 2000);
    }
    watched = {&pool_, lpas, 0, 0};
    std::shuffle(lpas.begin(), lpas.end(), std::mt19937_64(3));
    for (const uint64_t lpa : lpas) {
        add(lpa, static_cast<unsigned>(1 + lpa / 4096 % 300));
    }
    io_fault = watch;
    EXPECT_EQ(close(), 0);
    io_fault = nullptr;
    EXPECT_GT(watched.writes, 1u);
    EXPECT_GE(watched.written, watched.lpas.size() - 1);
}

// A group that cannot be written as a whole goes entry by entry.
TEST_F(ref_counts, whichever_call_of_the_end_fails_nothing_is_lost) {
    for (uint64_t n = 1;; n++) {
        pool_.fill_group(0, 0);
        pool_.fill_group(2, 0);
        reopen();
        add(5, 3);
        add(2 * 4096, 300);
        const io_fault_at fault(n, EIO);
        ASSERT_EQ(close(), 0) << n;
        ASSERT_EQ(pool_.tbl(5), 0x8003) << n;
        ASSERT_EQ(pool_.tbl(2 * 4096), 0x8000 + 300) << n;
        if (!fault.fired()) {
            // Each group: one read and one write, each with a seek. The file ends inside group 2,
            // which takes one read more.
            EXPECT_EQ(fault.calls(), 9u);
            break;
        }
    }
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ref_counts, of_a_group_that_cannot_be_read_are_left_to_the_single_entry_path) {
    for (const io_call kind : {io_call::read, io_call::seek}) {
        const io_outage outage(kind);
        EXPECT_EQ(tbl_ref_counts_add(counts_, 5, 0, &first_uses_), ref_result::no_entry);
    }
    EXPECT_TRUE(log_.lines().empty());  // the single-entry path logs it
    add(5);
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(pool_.tbl(5), 0x8001);
}
