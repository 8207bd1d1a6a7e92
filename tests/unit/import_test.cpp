#include "volume/import.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

#include "cli/operations.h"
#include "fri/fri_entries.h"
#include "fri/fri_file.h"
#include "map/map_file.h"
#include "options.h"
#include "store/keep_journal.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"

static constexpr uint64_t INIT_BIT = uint64_t{1} << 63;  // of an index entry as one number
static constexpr uint64_t EVERY_EXTENT = 0x1F800000000;  // free extents of a new volume

// On both paths: entry by entry, and in runs of blocks.
class import_of_a_map : public testing::TestWithParam<bool> {
protected:
    import_of_a_map() {
        if (entry_by_entry()) {
            path_.emplace();
        }
        make_sample_volume(root(), 0x11);
        make_fri(fri(), uuid_of(0x11), EVERY_EXTENT);
    }
    ~import_of_a_map() override { close(); }

    static bool entry_by_entry() { return GetParam(); }
    std::string root() const { return volumes_.volume(1); }
    std::string tbl() const { return root() + "/@EP/EP_TBL"; }
    std::string fri() const { return root() + "/@EP/EP_FRI"; }
    std::string map() const { return root() + "/@iSCSITrg/LUN_Extent_1"; }

    void load(uint64_t total, uint64_t mapped, const std::vector<sample_entry>& entries) {
        make_filled_map(map(), total, mapped, entries);
        close();
        ASSERT_EQ(load_tbl(tbl().c_str()), 0);
        ASSERT_EQ(load_fri(fri().c_str()), 0);
        ASSERT_EQ(load_map(map().c_str()), 0);
    }
    static void close() {
        close_tbl();
        close_fri();
        close_map();
    }
    int import_it(int32_t kind) { return import_it(kind, root()); }
    int import_it(int32_t kind, const std::string& root) {
        return import_loaded(map().c_str(), kind, root.c_str());
    }

    sample_volumes volumes_;
    log_capture log_;
    std::optional<single_entry_path> path_;
};

TEST_P(import_of_a_map, counts_a_reference_for_each_entry_and_marks_its_group) {
    load(100, 3, {{0, 5}, {1, 5}, {99, 2 * 4096 + 7}});
    stdout_capture out;
    EXPECT_EQ(import_it(MAP_KIND_LUN), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: Try to import 3/100 mappings\n" + progress_lines(0, 100));
    EXPECT_EQ(tbl_word_of(tbl(), 5), 0x8002);
    EXPECT_EQ(tbl_word_of(tbl(), 2 * 4096 + 7), 0x8001);
    EXPECT_EQ(fri_word_of(fri(), 0), INIT_BIT);
    EXPECT_EQ(fri_word_of(fri(), 1), 0u);
    EXPECT_EQ(fri_word_of(fri(), 2), INIT_BIT);
    EXPECT_EQ(fri_group_count_of(fri()), 3u);
    EXPECT_EQ(fri_free_count_of(fri()), EVERY_EXTENT - 2);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_P(import_of_a_map, more_entries_than_the_header_counts_fail) {
    load(63, 1, {{0, 5}, {2, 6}});
    stdout_capture out;
    EXPECT_EQ(import_it(MAP_KIND_LUN), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: import_map(#) mapped_cnt is wrong\n"}));
    EXPECT_EQ(tbl_word_of(tbl(), 6), 0);
}

TEST_P(import_of_a_map, fewer_entries_than_the_header_counts_pass) {
    load(63, 9, {{0, 5}});
    stdout_capture out;
    EXPECT_EQ(import_it(MAP_KIND_LUN), 0);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_P(import_of_a_map, an_unmap_buffer_ends_at_its_first_unmapped_entry) {
    std::vector<sample_entry> entries = run_of_entries(10, 40);
    entries.push_back({11, 90});
    load(630, 10, entries);
    stdout_capture out;
    EXPECT_EQ(import_it(MAP_KIND_UNMAP_BUFFER), 0);
    EXPECT_EQ(tbl_word_of(tbl(), 49), 0x8001);
    EXPECT_EQ(tbl_word_of(tbl(), 90), 0);
    // The entries 0 to 10 were looked at: 10 * 100 / 630 is 1.
    EXPECT_EQ(out.text(), "TARN_INFO: Try to import 10/630 mappings\n" + progress_lines(0, 2));
}

// A progress line is due every 630 entries of these maps, so most of their nodes print no line.
static constexpr uint64_t LARGE = 63000;

TEST_P(import_of_a_map, counts_exactly_between_two_progress_lines) {
    constexpr uint64_t FAR = uint64_t{20000} * 4096;  // no counter of its own in memory
    std::vector<sample_entry> entries;
    for (uint64_t lea = 63; lea < 63 + 300; lea++) {  // more than a byte holds
        entries.push_back({lea, 5});
    }
    entries.push_back({400, 4096 + 1});
    entries.push_back({401, FAR});
    entries.push_back({402, FAR});
    entries.push_back({403, 6});
    load(LARGE, entries.size(), entries);
    stdout_capture out;
    EXPECT_EQ(import_it(MAP_KIND_LUN), 0);
    EXPECT_EQ(tbl_word_of(tbl(), 5), 0x8000 + 300);
    EXPECT_EQ(tbl_word_of(tbl(), 6), 0x8001);
    EXPECT_EQ(tbl_word_of(tbl(), 7), 0);
    EXPECT_EQ(tbl_word_of(tbl(), 4096 + 1), 0x8001);
    EXPECT_EQ(tbl_word_of(tbl(), FAR), 0x8002);
    EXPECT_EQ(fri_word_of(fri(), 0), INIT_BIT);
    EXPECT_EQ(fri_word_of(fri(), 1), INIT_BIT);
    EXPECT_EQ(fri_word_of(fri(), 20000), INIT_BIT);
    EXPECT_EQ(fri_free_count_of(fri()), EVERY_EXTENT - 4);
    EXPECT_EQ(out.text(), "TARN_INFO: Try to import 304/63000 mappings\n" + progress_lines(0, 100));
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_P(import_of_a_map, more_entries_than_the_header_counts_fail_between_two_progress_lines_too) {
    load(LARGE, 2, {{70, 5}, {71, 6}, {72, 5}, {73, 6}});
    stdout_capture out;
    EXPECT_EQ(import_it(MAP_KIND_LUN), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: import_map(#) mapped_cnt is wrong\n"}));
    EXPECT_EQ(tbl_word_of(tbl(), 5), 0x8001);
    EXPECT_EQ(tbl_word_of(tbl(), 6), 0x8001);
}

TEST_P(import_of_a_map, an_unmap_buffer_ends_between_two_progress_lines_too) {
    std::vector<sample_entry> entries = run_of_entries(70, 40);
    entries.push_back({71, 200});
    load(LARGE, 71, entries);
    stdout_capture out;
    EXPECT_EQ(import_it(MAP_KIND_UNMAP_BUFFER), 0);
    EXPECT_EQ(tbl_word_of(tbl(), 109), 0x8001);
    EXPECT_EQ(tbl_word_of(tbl(), 200), 0);
}

TEST_P(import_of_a_map, a_rod_map_is_scanned_over_the_formula_whatever_its_header_says) {
    load(63, 1, {{540671, 5}});
    stdout_capture out;
    EXPECT_EQ(import_it(MAP_KIND_ROD), 0);
    EXPECT_EQ(tbl_word_of(tbl(), 5), 0x8001);
    EXPECT_EQ(out.text(), "TARN_INFO: Try to import 1/540672 mappings\n" + progress_lines(0, 100));
}

TEST_P(import_of_a_map, a_map_of_no_entries_prints_one_progress_line) {
    load(0, 0, {});
    stdout_capture out;
    EXPECT_EQ(import_it(MAP_KIND_LUN), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: Try to import 0/0 mappings\n" + progress_lines(0, 0));
}

TEST_P(import_of_a_map, the_entries_behind_the_end_of_the_file_are_unmapped) {
    load(uint64_t{1} << 40, 1, {{3, 7}});
    stdout_capture out;
    EXPECT_EQ(import_it(MAP_KIND_LUN), 0);
    EXPECT_EQ(out.text(),
              "TARN_INFO: Try to import 1/1099511627776 mappings\n" + progress_lines(0, 100));
}

TEST_P(import_of_a_map, a_count_that_no_file_reaches_fails_at_the_first_entry_out_of_reach) {
    load(~uint64_t{0} - 1, 0, {});
    stdout_capture out;
    EXPECT_EQ(import_it(MAP_KIND_LUN), -1);
    EXPECT_EQ(out.text(),
              "TARN_INFO: Try to import 0/18446744073709551614 mappings\n" + progress_lines(0, 6));
    // Node 2^54 - 2048 begins at entry 63 times that.
    EXPECT_TRUE(log_.has("ERR: import_map(#) Fail to import map, lea 1134907106097235968\n"));
}

TEST_P(import_of_a_map, a_reference_past_4095_fails_and_the_entry_stays) {
    load(63, 1, {{4, 5}});
    set_tbl_word(tbl(), 5, 0x8FFF);
    stdout_capture out;
    EXPECT_EQ(import_it(MAP_KIND_LUN), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: add_reference(#) lpa 5 has more than 4095 references\n",
                         "ERR: import_map(#) Fail to increase mapping, lea 4\n"}));
    EXPECT_EQ(tbl_word_of(tbl(), 5), 0x8FFF);
}

TEST_P(import_of_a_map, an_extent_past_the_table_fails) {
    load(63, 1, {{4, EVERY_EXTENT}});
    stdout_capture out;
    EXPECT_EQ(import_it(MAP_KIND_LUN), -1);
    EXPECT_TRUE(log_.has("ERR: import_map(#) Fail to init fri group, lea 4\n"));
}

TEST_P(import_of_a_map, a_table_that_does_not_take_the_reference_fails) {
    load(63, 1, {{4, 5}});
    set_fri_word(fri(), 0, INIT_BIT);  // so that the table's entry is the first thing written
    stdout_capture out;
    const io_fault_at fault(1, ENOSPC, {io_call::write});
    if (!entry_by_entry()) {  // the blocks that did not go out as a run go out entry by entry
        EXPECT_EQ(import_it(MAP_KIND_LUN), 0);
        EXPECT_EQ(tbl_word_of(tbl(), 5), 0x8001);
        return;
    }
    EXPECT_EQ(import_it(MAP_KIND_LUN), -1);
    EXPECT_TRUE(log_.has("ERR: import_map(#) Fail to increase mapping, lea 4\n"));
}

static uint64_t reads_of_groups;

// Group 0 lies in 17 blocks.
static io_verdict fail_reads_of_groups(io_call call, size_t wanted) {
    const bool is_group = call == io_call::read && wanted == 17 * 512;
    reads_of_groups += is_group ? 1 : 0;
    return {is_group ? EIO : 0, wanted};
}

TEST_P(import_of_a_map, an_extent_whose_group_has_no_counters_is_counted_in_the_table) {
    load(63, 3, {{0, 5}, {1, 5}, {2, 6}});
    stdout_capture out;
    reads_of_groups = 0;
    {
        const fault_hook hook(fail_reads_of_groups);
        EXPECT_EQ(import_it(MAP_KIND_LUN), 0);
    }
    EXPECT_EQ(reads_of_groups, entry_by_entry() ? 0u : 1u);
    EXPECT_EQ(tbl_word_of(tbl(), 5), 0x8002);
    EXPECT_EQ(tbl_word_of(tbl(), 6), 0x8001);
    EXPECT_EQ(fri_word_of(fri(), 0), INIT_BIT);
    EXPECT_EQ(fri_free_count_of(fri()), EVERY_EXTENT - 2);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_P(import_of_a_map, counts_of_all_ones_fail) {
    stdout_capture out;
    load(~uint64_t{0}, 0, {});
    EXPECT_EQ(import_it(MAP_KIND_ROD), -1);  // also where the count is not used
    load(63, ~uint64_t{0}, {});
    EXPECT_EQ(import_it(MAP_KIND_LUN), -1);
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(log_.count("or its count is all ones"), 2u);
}

TEST_P(import_of_a_map, without_an_extent_size_there_is_no_import) {
    load(63, 0, {});
    stdout_capture out;
    EXPECT_EQ(import_it(MAP_KIND_LUN, volumes_.root() + "/none"), -1);
    EXPECT_EQ(out.text(), "");
}

TEST_P(import_of_a_map, every_failing_transfer_either_fails_it_or_touches_the_index_header_only) {
    for (uint64_t n = 1;; n++) {
        ASSERT_LT(n, 1000u);
        make_sample_volume(root(), 0x11);
        make_fri(fri(), uuid_of(0x11), EVERY_EXTENT);
        load(63, 2, {{0, 5}, {1, 9000}});
        stdout_capture out;
        io_fault_at fault(n, EIO, {io_call::read, io_call::write});
        const int result = import_it(MAP_KIND_LUN);
        if (!fault.fired()) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(tbl_word_of(tbl(), 5), 0x8001);
            break;
        }
        if (result == 0) {  // the header's saves have no result of their own
            EXPECT_TRUE(!entry_by_entry() || log_.has("meta node")) << n;
            EXPECT_EQ(tbl_word_of(tbl(), 5), 0x8001) << n;
            EXPECT_EQ(tbl_word_of(tbl(), 9000), 0x8001) << n;
            EXPECT_EQ(fri_word_of(fri(), 2), INIT_BIT) << n;
        }
        log_.clear();
    }
}

class import_command : public import_of_a_map {
protected:
    import_command() {
        set(opt_ctx.tblpath, tbl());
        set(opt_ctx.fripath, fri());
        set(opt_ctx.mappath, map());
    }
    static void set(char* field, const std::string& path) {
        snprintf(field, PATH_TEXT_SIZE, "%s", path.c_str());
    }
    void expect_all_closed() const {
        EXPECT_EQ(current_tbl.fd, 0);
        EXPECT_EQ(current_fri.fd, 0);
        EXPECT_EQ(current_map.fd, 0);
    }
};

TEST_P(import_command, fails_on_a_table_outside_every_volume) {
    set(opt_ctx.tblpath, "/tmp/nowhere/EP_TBL");
    EXPECT_EQ(import(), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: import(#) Fail to parse volume path from "
                                       "/tmp/nowhere/EP_TBL\n"}));
}

TEST_P(import_command, fails_on_each_file_that_does_not_load_and_closes_the_others) {
    EXPECT_EQ(import(), -1);  // there is no map yet
    EXPECT_TRUE(log_.has("ERR: import(#) Fail to load MAP " + map() + "\n"));
    expect_all_closed();
    unlink(tbl().c_str());
    EXPECT_EQ(import(), -1);
    EXPECT_TRUE(log_.has("ERR: import(#) Fail to load TBL " + tbl() + "\n"));
    expect_all_closed();
    unlink(fri().c_str());
    EXPECT_EQ(import(), -1);
    EXPECT_TRUE(log_.has("ERR: import(#) Fail to load FRI " + fri() + "\n"));
    expect_all_closed();
}

INSTANTIATE_TEST_SUITE_P(on_both_paths, import_of_a_map, testing::Bool());
INSTANTIATE_TEST_SUITE_P(on_both_paths, import_command, testing::Bool());

// Maps of a volume that is rebuilt: what an import accepts before it fails is in the new table.
class import_of_a_volume : public testing::TestWithParam<bool> {
protected:
    import_of_a_volume() {
        if (GetParam()) {
            path_.emplace();
        }
        make_sample_volume(root(), 0x11);
        snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", root().c_str());
    }
    ~import_of_a_volume() override { keep_journal_forget(); }
    std::string root() const { return volumes_.volume(1); }
    std::string made(const std::string& name) const { return root() + "/@EP_FIX/" + name; }
    int import_volume() {
        const stdout_capture out;
        return do_import_volume(FIX_DIR);
    }

    sample_volumes volumes_;
    log_capture log_;
    std::optional<single_entry_path> path_;
};

TEST_P(import_of_a_volume, ends_at_reference_4096_of_one_extent) {
    std::vector<sample_entry> entries;
    for (uint64_t lea = 0; lea < 4097; lea++) {
        entries.push_back({lea, lea == 4000 ? 9u : 5u});  // the last one is reference 4096
    }
    make_filled_map(root() + "/@iSCSITrg/LUN_Extent_1", 5000, 4097, entries);
    EXPECT_EQ(import_volume(), -1);
    EXPECT_TRUE(log_.has("ERR: add_reference(#) lpa 5 has more than 4095 references\n"));
    EXPECT_TRUE(log_.has("ERR: import_map(#) Fail to increase mapping, lea 4096\n"));
    EXPECT_EQ(tbl_word_of(made("EP_TBL"), 5), 0x8fff);
    EXPECT_EQ(tbl_word_of(made("EP_TBL"), 9), 0x8001);
}

TEST_P(import_of_a_volume, counts_what_comes_before_a_map_with_a_wrong_count) {
    make_filled_map(root() + "/@iSCSITrg/LUN_Extent_1", 63, 1, {{0, 5}, {1, 9 * 4096}, {2, 6}});
    EXPECT_EQ(import_volume(), -1);
    EXPECT_TRUE(log_.has("ERR: import_map(#) mapped_cnt is wrong\n"));
    EXPECT_EQ(tbl_word_of(made("EP_TBL"), 5), 0x8001);
    EXPECT_EQ(tbl_word_of(made("EP_TBL"), 9 * 4096), 0);
    EXPECT_EQ(fri_word_of(made("EP_FRI"), 0), INIT_BIT);
    EXPECT_EQ(fri_group_count_of(made("EP_FRI")), 1u);
    EXPECT_EQ(fri_free_count_of(made("EP_FRI")), EVERY_EXTENT);  // as it was saved with the group
}

TEST_P(import_of_a_volume, counts_a_map_whose_node_is_damaged_and_logs_it) {
    make_filled_map(root() + "/@iSCSITrg/LUN_Extent_1", 63, 2, {{0, 5}, {1, 5}});
    spoil_node(root() + "/@iSCSITrg/LUN_Extent_1", 0);
    EXPECT_EQ(import_volume(), 0);
    EXPECT_TRUE(log_.has("data chksum mismatched"));
    EXPECT_EQ(tbl_word_of(made("EP_TBL"), 5), 0x8002);
    EXPECT_EQ(fri_free_count_of(made("EP_FRI")), EVERY_EXTENT - 1);
}

// More regions than a window has room for, in two maps: 100 of 2^20 extents.
TEST_P(import_of_a_volume, larger_than_a_window_is_counted_in_several) {
    std::vector<sample_entry> entries;
    for (uint64_t lea = 0; lea < 63; lea++) {
        entries.push_back({lea, (lea + 1) << 20});
    }
    // The last extent of a region shares a block with the first of the next one. Whichever map is
    // listed first, one of the two pairs is in two windows.
    entries.push_back({63, (uint64_t{81} << 20) - 1});
    entries.push_back({64, (uint64_t{17} << 20) - 1});
    make_filled_map(root() + "/@iSCSITrg/LUN_Extent_1", 126, 65, entries);
    entries.resize(63);
    for (sample_entry& entry : entries) {
        entry.lpa += uint64_t{37} << 20;
    }
    make_filled_map(root() + "/@iSCSITrg/LUN_Extent_2", 63, 63, entries);
    EXPECT_EQ(import_volume(), 0);
    for (const uint64_t region : {1, 37, 38, 63, 64, 80, 81, 100}) {
        const uint16_t word = region > 37 && region < 64 ? 0x8002 : 0x8001;
        EXPECT_EQ(tbl_word_of(made("EP_TBL"), region << 20), word) << region;
        EXPECT_EQ(fri_word_of(made("EP_FRI"), region << 8), INIT_BIT) << region;
    }
    EXPECT_EQ(tbl_word_of(made("EP_TBL"), (uint64_t{81} << 20) - 1), 0x8001);
    EXPECT_EQ(tbl_word_of(made("EP_TBL"), (uint64_t{17} << 20) - 1), 0x8001);
    EXPECT_EQ(fri_group_count_of(made("EP_FRI")), (100u << 8) + 1);
    EXPECT_EQ(fri_free_count_of(made("EP_FRI")), EVERY_EXTENT - 102);
}

// The extent is in a region that the first window has no room for, and what the first window wrote
// is taken back: the last entry comes after the failure.
TEST_P(import_of_a_volume, ends_at_reference_4096_in_a_later_window) {
    std::vector<sample_entry> entries;
    for (uint64_t lea = 0; lea < 100; lea++) {
        entries.push_back({lea, (lea + 1) << 20});
    }
    for (uint64_t lea = 100; lea < 100 + 4096; lea++) {
        entries.push_back({lea, uint64_t{150} << 20});
    }
    entries.push_back({100 + 4096, (uint64_t{1} << 20) + 1});
    make_filled_map(root() + "/@iSCSITrg/LUN_Extent_1", 5000, entries.size(), entries);
    EXPECT_EQ(import_volume(), -1);
    EXPECT_TRUE(log_.has("ERR: import_map(#) Fail to increase mapping, lea 4195\n"));
    EXPECT_EQ(tbl_word_of(made("EP_TBL"), uint64_t{150} << 20), 0x8fff);
    EXPECT_EQ(tbl_word_of(made("EP_TBL"), uint64_t{1} << 20), 0x8001);
    EXPECT_EQ(tbl_word_of(made("EP_TBL"), (uint64_t{1} << 20) + 1), 0);
    EXPECT_EQ(fri_word_of(made("EP_FRI"), 150 << 8), INIT_BIT);
}

INSTANTIATE_TEST_SUITE_P(on_both_paths, import_of_a_volume, testing::Bool());
