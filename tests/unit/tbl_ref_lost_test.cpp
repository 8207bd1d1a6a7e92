// Counts that cannot be written to the table: writing ends at the first entry, and the map entry
// that its group was counted for is known.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fri/fri_entries.h"
#include "fri/fri_file.h"
#include "map/map_file.h"
#include "options.h"
#include "store/keep_journal.h"
#include "support/io_outage.h"
#include "support/log_capture.h"
#include "support/pool_files.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"
#include "tbl/tbl_ref_counts.h"
#include "volume/import.h"

class ref_lost : public testing::Test {
protected:
    ~ref_lost() override {
        tbl_ref_counts_drop(counts_);
        keep_journal_forget();
    }
    void add(uint64_t lpa, uint64_t lea) {
        ASSERT_EQ(tbl_ref_counts_add(counts_, lpa, lea, &first_uses_), ref_result::counted);
    }

    uint64_t lost_lea() const {
        uint64_t lea = 0;
        EXPECT_TRUE(tbl_ref_counts_lost(counts_, &lea));
        return lea;
    }

    pool_files pool_;
    log_capture log_;
    tbl_ref_counts* counts_ = tbl_ref_counts_open([](uint64_t) { return 0; });
    uint64_t first_uses_ = 0;
};

TEST_F(ref_lost, the_first_entry_that_cannot_be_written_ends_the_writing) {
    add(3 * 4096, 10);
    add(4096 + 9, 20);
    add(4096 + 8, 30);
    add(7, 40);
    add(4096 + 8, 50);
    uint64_t untouched = 5;
    EXPECT_FALSE(tbl_ref_counts_lost(counts_, &untouched));
    EXPECT_EQ(untouched, 5u);
    const io_outage outage(io_call::write, 2);  // the lowest group goes out
    EXPECT_FALSE(tbl_ref_counts_write(counts_));
    EXPECT_EQ(lost_lea(), 20u);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: tbl_entry_write(#) write tbl error, lpa 4104\n"}));
    EXPECT_EQ(pool_.tbl(7), 0x8001);
    EXPECT_EQ(keep_journal_failures().count, 1u);
}

TEST_F(ref_lost, nothing_is_tried_after_that) {
    add(5, 1);
    const io_outage outage(io_call::write);
    EXPECT_FALSE(tbl_ref_counts_write(counts_));
    const uint64_t writes = io_outage::calls();
    EXPECT_FALSE(tbl_ref_counts_write(counts_));
    EXPECT_EQ(tbl_ref_counts_add(counts_, 9 * 4096, 2, &first_uses_), ref_result::lost);
    EXPECT_EQ(io_outage::calls(), writes);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: tbl_entry_write(#) write tbl error, lpa 5\n"}));
}

// The entries are read before they are written.
TEST_F(ref_lost, an_entry_that_cannot_be_read_is_not_written) {
    add(5, 77);
    const io_outage outage(io_call::read);
    EXPECT_FALSE(tbl_ref_counts_write(counts_));
    EXPECT_EQ(lost_lea(), 77u);
    EXPECT_EQ(
        log_.lines(),
        log_lines({"ERR: tbl_entry_read(#) tbl read error, lpa[0]\n",
                   "ERR: tbl_entry_write(#) read tbl error before write tbl entry, lpa 0\n"}));
}

TEST_F(ref_lost, room_that_cannot_be_made_ends_the_counting) {
    constexpr uint64_t FAR = uint64_t{70000};
    ref_result result = ref_result::counted;
    uint64_t added = 0;
    const io_outage outage(io_call::write);
    for (; result == ref_result::counted && added < 40000; added++) {
        result = tbl_ref_counts_add(counts_, (FAR + added) * 4096 + 3, 1000 + added, &first_uses_);
    }
    EXPECT_EQ(result, ref_result::lost);
    EXPECT_EQ(lost_lea(), 1000u);  // the lowest group was the first
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: tbl_entry_write(#) write tbl error, lpa 286720003\n"}));
}

// Maps imported into a table on a disk that takes no entry of it.
class import_lost : public testing::Test {
protected:
    import_lost() {
        make_sample_volume(root(), 0x11);
        snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", root().c_str());
    }
    std::string root() const { return volumes_.volume(1); }
    void load() const {
        ASSERT_EQ(load_tbl((root() + "/@EP/EP_TBL").c_str()), 0);
        ASSERT_EQ(load_fri((root() + "/@EP/EP_FRI").c_str()), 0);
    }

    sample_volumes volumes_;
    log_capture log_;
    stdout_capture out_;
};

TEST_F(import_lost, the_map_entry_of_the_group_is_named_at_the_end) {
    load();
    tbl_ref_counts* counts = tbl_ref_counts_open(tarn_fri_set_init_bit);
    const std::string map = root() + "/@iSCSITrg/LUN_Extent_";
    make_filled_map(map + "1", 63, 2, {{4, 4096 + 6}, {5, 4096 + 5}});
    make_filled_map(map + "2", 63, 2, {{8, 4096 + 5}, {9, 2 * 4096}});
    for (const char* name : {"1", "2"}) {
        ASSERT_EQ(load_map((map + name).c_str()), 0);
        ASSERT_EQ(import_map(MAP_KIND_LUN, root().c_str(), counts), 0);
        close_map();
    }
    {
        const io_outage outage(io_call::write);
        EXPECT_EQ(finish_import(counts), -1);
    }
    EXPECT_EQ(log_.lines(), log_lines({"ERR: tbl_entry_write(#) write tbl error, lpa 4101\n",
                                       "ERR: import_map(#) Fail to increase mapping, lea 4\n"}));
    close_tbl();
    close_fri();
}

// The maps take more groups than there is room for: the first ones are written on the way.
TEST_F(import_lost, the_map_entry_of_the_group_is_named_when_the_memory_is_full) {
    load();
    tbl_ref_counts* counts = tbl_ref_counts_open([](uint64_t) { return 0; });
    std::vector<sample_entry> entries;
    for (uint64_t lea = 0; lea < 9000; lea++) {
        entries.push_back({lea, (20000 + lea) * 4096});
    }
    make_filled_map(root() + "/@iSCSITrg/LUN_Extent_1", 9000, 9000, entries);
    ASSERT_EQ(load_map((root() + "/@iSCSITrg/LUN_Extent_1").c_str()), 0);
    {
        const io_outage outage(io_call::write);
        EXPECT_EQ(import_map(MAP_KIND_LUN, root().c_str(), counts), -1);
        EXPECT_EQ(finish_import(counts), -1);
    }
    EXPECT_EQ(log_.lines(), log_lines({"ERR: tbl_entry_write(#) write tbl error, lpa 81920000\n",
                                       "ERR: import_map(#) Fail to increase mapping, lea 0\n"}));
    close_map();
    close_tbl();
    close_fri();
}
