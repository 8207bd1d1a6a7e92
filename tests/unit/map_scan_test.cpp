#include "map/map_scan.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "fri/fri_entries.h"
#include "fri/fri_file.h"
#include "map/map_file.h"
#include "options.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/io_outage.h"
#include "support/log_capture.h"
#include "support/roads.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"
#include "tbl/tbl_ref_counts.h"
#include "volume/import.h"
#include "volume/map_check.h"

static uint64_t node_offset(uint64_t node) {
    return (node + 2048) * 512;
}

// What a scan shows, and what it must keep to: every node once, in ascending order.
struct shown_nodes {
    std::vector<uint64_t> with_data;  // numbers of the nodes that are in memory
    std::vector<uint64_t> mismatched;
    uint64_t end;  // nodes shown
    uint64_t runs;
    map_scan_result last;
};

static shown_nodes scan_all(int fd, uint64_t node_count, const scratch_file& file) {
    shown_nodes shown = {};
    map_scan* scan = map_scan_open(fd, node_count);
    EXPECT_NE(scan, nullptr);
    map_scan_run run{};
    for (;;) {
        shown.last = map_scan_next(scan, &run);
        if (shown.last != map_scan_result::run) {
            break;
        }
        shown.runs++;
        EXPECT_EQ(run.first, shown.end);
        EXPECT_GT(run.count, 0u);
        for (uint64_t i = 0; run.nodes != nullptr && i < run.count; i++) {
            const uint64_t node = run.first + i;
            shown.with_data.push_back(node);
            if (memcmp(&run.nodes[i], file.bytes(node_offset(node), 512).data(), 512) != 0) {
                ADD_FAILURE() << "node " << node << " is not what the file has";
            }
            if (map_scan_mismatched(&run, i)) {
                shown.mismatched.push_back(node);
            }
        }
        shown.end += run.count;
    }
    map_scan_close(scan);
    return shown;
}

static std::vector<uint64_t> numbers(uint64_t from, uint64_t to) {
    std::vector<uint64_t> all;
    for (; from < to; from++) {
        all.push_back(from);
    }
    return all;
}

class map_scan_of_file : public testing::Test {
protected:
    void put(uint64_t node, uint64_t word) {
        data_node bytes{};
        memcpy(bytes.payload, &word, sizeof word);
        data_node_seal(&bytes);
        file_.write_at(node_offset(node), bytes);
    }
    void put_all(uint64_t from, uint64_t to) {
        for (; from < to; from++) {
            put(from, from + 1);
        }
    }

    scratch_file file_{1048576};
    log_capture log_;
};

TEST_F(map_scan_of_file, every_node_is_shown_once_in_order) {
    put_all(0, 2500);
    const shown_nodes shown = scan_all(file_.fd(), 2500, file_);
    EXPECT_EQ(shown.last, map_scan_result::end);
    EXPECT_EQ(shown.end, 2500u);
    EXPECT_EQ(shown.with_data, numbers(0, 2500));
    EXPECT_EQ(shown.mismatched, std::vector<uint64_t>{});
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(map_scan_of_file, the_last_run_ends_with_the_last_node_asked_for) {
    put_all(0, 1100);
    for (const uint64_t count : {0, 1, 1023, 1024, 1025, 1099}) {
        const shown_nodes shown = scan_all(file_.fd(), count, file_);
        EXPECT_EQ(shown.last, map_scan_result::end);
        EXPECT_EQ(shown.with_data, numbers(0, count));
    }
}

TEST_F(map_scan_of_file, nodes_whose_checksum_does_not_match_are_named) {
    put_all(0, 20);
    for (const uint64_t node : {3, 4, 19}) {
        file_.write_at(node_offset(node) + 503, uint8_t{1});
    }
    file_.write_at(node_offset(7), uint64_t{77});
    file_.write_at(node_offset(7) + 508, uint32_t{0});  // carries none: nothing to match
    file_.write_at(node_offset(9) + 504, uint8_t{1});   // bytes that are nobody's count as well
    const shown_nodes shown = scan_all(file_.fd(), 20, file_);
    EXPECT_EQ(shown.mismatched, (std::vector<uint64_t>{3, 4, 9, 19}));
}

TEST_F(map_scan_of_file, holes_are_passed_over_in_one_step) {
    put(5, 1);
    put(1000000, 2);
    put(1000001, 3);
    put(3000000, 4);
    ASSERT_EQ(truncate(file_.path(), static_cast<off_t>(node_offset(4000000))), 0);
    const io_fault_at reads(0, 0, {io_call::read});
    const shown_nodes shown = scan_all(file_.fd(), 5000000, file_);
    EXPECT_EQ(shown.last, map_scan_result::end);
    EXPECT_EQ(shown.end, 5000000u);
    EXPECT_LE(shown.runs, 8u);
    EXPECT_LE(reads.calls(), 6u);
    // What the file system keeps beside them is in memory as well.
    EXPECT_LT(shown.with_data.size(), 4u * 2048);
    for (const uint64_t node : {5, 1000000, 1000001, 3000000}) {
        EXPECT_TRUE(std::binary_search(shown.with_data.begin(), shown.with_data.end(), node));
    }
}

TEST_F(map_scan_of_file, data_behind_the_last_node_asked_for_is_not_shown) {
    put(5, 1);
    put(3000000, 2);
    const shown_nodes shown = scan_all(file_.fd(), 100000, file_);
    EXPECT_EQ(shown.last, map_scan_result::end);
    EXPECT_EQ(shown.end, 100000u);
}

TEST_F(map_scan_of_file, a_file_without_data_nodes_is_one_hole) {
    const shown_nodes shown = scan_all(file_.fd(), 777, file_);
    EXPECT_EQ(shown.end, 777u);
    EXPECT_EQ(shown.runs, 1u);
    EXPECT_EQ(shown.with_data, std::vector<uint64_t>{});
    scratch_file shorter(100);
    EXPECT_EQ(scan_all(shorter.fd(), 777, shorter).end, 777u);
}

TEST_F(map_scan_of_file, a_node_that_the_file_cuts_short_is_filled_with_zeros) {
    put_all(0, 3);
    ASSERT_EQ(truncate(file_.path(), static_cast<off_t>(node_offset(2) + 200)), 0);
    shown_nodes shown = scan_all(file_.fd(), 3, file_);
    EXPECT_EQ(shown.with_data, numbers(0, 3));
    EXPECT_EQ(shown.mismatched, std::vector<uint64_t>{});  // its checksum was cut off
    ASSERT_EQ(truncate(file_.path(), static_cast<off_t>(node_offset(1) + 509)), 0);
    shown = scan_all(file_.fd(), 3, file_);
    EXPECT_EQ(shown.end, 3u);
    EXPECT_EQ(shown.mismatched, std::vector<uint64_t>{1});  // one byte of it was not
}

// A count that a damaged header names costs neither memory nor time, and ends before a node that
// no file can have: (2^63 / 512) - 2048.
TEST_F(map_scan_of_file, an_absurd_count_is_one_hole_more) {
    put_all(0, 2);
    for (const uint64_t count : {uint64_t{1} << 53, ~uint64_t{0}}) {
        const shown_nodes shown = scan_all(file_.fd(), count, file_);
        EXPECT_EQ(shown.last, map_scan_result::end);
        EXPECT_EQ(shown.end, std::min(count, (uint64_t{1} << 54) - 2048));
        EXPECT_LE(shown.runs, 3u);
        EXPECT_LE(shown.with_data.size(), 8u);
    }
}

TEST_F(map_scan_of_file, there_is_none_on_the_entry_road_or_without_a_file) {
    const entry_road_scope road;
    EXPECT_EQ(map_scan_open(file_.fd(), 5), nullptr);
    entry_road_only = false;
    EXPECT_EQ(map_scan_open(-1, 5), nullptr);
    map_scan_close(nullptr);
}

TEST_F(map_scan_of_file, transfers_that_move_a_part_are_continued) {
    put_all(0, 1500);
    for (uint64_t n = 1;; n++) {
        const io_fault_at fault(n, 0, {io_call::read});
        const shown_nodes shown = scan_all(file_.fd(), 1500, file_);
        ASSERT_EQ(shown.with_data, numbers(0, 1500));
        ASSERT_EQ(shown.mismatched, std::vector<uint64_t>{});
        if (!fault.fired()) {
            EXPECT_GT(n, 2u);
            break;
        }
    }
}

TEST_F(map_scan_of_file, it_stops_before_the_nodes_that_cannot_be_read) {
    put_all(0, 1500);
    uint64_t before = 0;
    for (uint64_t n = 1;; n++) {
        const io_fault_at fault(n, EIO);
        const shown_nodes shown = scan_all(file_.fd(), 1500, file_);
        ASSERT_EQ(shown.with_data, numbers(0, shown.end));
        ASSERT_GE(shown.end, before);
        before = shown.end;
        if (!fault.fired()) {
            EXPECT_EQ(shown.last, map_scan_result::end);
            EXPECT_EQ(shown.end, 1500u);
            break;
        }
        ASSERT_EQ(shown.last, map_scan_result::failed);
        ASSERT_LT(shown.end, 1500u);
    }
    EXPECT_TRUE(log_.lines().empty());
}

// The procedures above a scan, over both roads.
struct told {
    int result;
    std::string output;
    std::vector<std::string> log;
    bool operator==(const told&) const = default;
};

class map_scan_of_volume : public testing::Test {
protected:
    map_scan_of_volume() {
        make_sample_volume(root(), 0x11);
        make_fri(root() + "/@EP/EP_FRI", uuid_of(0x11), FRI_NEW_FREE_COUNT);
    }
    ~map_scan_of_volume() override { close(); }

    std::string root() const { return volumes_.volume(1); }
    std::string map() const { return root() + "/@iSCSITrg/LUN_Extent_1"; }
    static void close() {
        close_map();
        close_tbl();
        close_fri();
    }
    void reload() {
        close();
        ASSERT_EQ(load_map(map().c_str()), 0);
        ASSERT_EQ(load_tbl((root() + "/@EP/EP_TBL").c_str()), 0);
        ASSERT_EQ(load_fri((root() + "/@EP/EP_FRI").c_str()), 0);
    }
    told check(int32_t kind = MAP_KIND_LUN, int32_t repair = 0) {
        log_.clear();
        stdout_capture out;
        const int result = do_check_map(kind, repair, root().c_str());
        return {result, out.text(), log_.lines()};
    }
    told import_it() {
        log_.clear();
        stdout_capture out;
        tbl_ref_counts* counts = tbl_ref_counts_open(tarn_fri_set_init_bit);
        const int result = import_map(MAP_KIND_LUN, root().c_str(), counts);
        EXPECT_EQ(finish_import(counts), 0);
        return {result, out.text(), log_.lines()};
    }

    sample_volumes volumes_;
    log_capture log_;
};

// Nodes 0, 120 and 9523 of 10000 hold data.
TEST_F(map_scan_of_volume, a_sparse_map_prints_the_lines_of_the_entry_road) {
    make_filled_map(map(), 630000, 3, {{1, 5}, {7560, 6}, {600000, 7}});
    reload();
    const told checked = check();
    const told imported = import_it();
    reload();
    const entry_road_scope road;
    EXPECT_EQ(checked.output, check().output);
    EXPECT_EQ(checked.output, "TARN_INFO: Try to check 10000 data-node\n" + progress_lines(0, 100) +
                                  "TARN_INFO: mapped_cnt matched: (3), on-disk(3)\n");
    EXPECT_EQ(imported.output, import_it().output);
    EXPECT_EQ(imported.output,
              "TARN_INFO: Try to import 3/630000 mappings\n" + progress_lines(0, 100));
    EXPECT_EQ(checked.result + imported.result, 0);
    EXPECT_EQ(checked.log, log_lines({}));
    EXPECT_EQ(imported.log, log_lines({}));
}

// Each mismatched node is told once, in the log where its turn comes and on standard output behind
// its progress line; one of them is the last, partial node (entry 2520 of 2521 is its first).
TEST_F(map_scan_of_volume, mismatched_nodes_are_told_once_in_their_order) {
    make_filled_map(map(), 2521, 4, {{0, 5}, {64, 6}, {2520, 7}, {2521, 8}});
    spoil_node(map(), 1);
    spoil_node(map(), 40);
    reload();
    const told checked = check();
    // 41 nodes: node n prints one line when n * 100 / 41 has reached p, which it always has.
    EXPECT_EQ(checked.output, "TARN_INFO: Try to check 41 data-node\n" + progress_lines(0, 1) +
                                  "TARN_INFO: checksum mismatched: node_num(1)\n"
                                  "TARN_INFO:     lea(64), lpa(6)\n" +
                                  progress_lines(2, 40) +
                                  "TARN_INFO: checksum mismatched: node_num(40)\n"
                                  "TARN_INFO:     lea(2520), lpa(7)\n"
                                  "TARN_INFO:     lea(2521), lpa(8)\n" +
                                  progress_lines(41, 41) +
                                  "TARN_INFO: mapped_cnt matched: (4), on-disk(4)\n");
    ASSERT_EQ(checked.log.size(), 2u);
    EXPECT_TRUE(checked.log[0].starts_with("ERR: tarn_read_data_node(#) data chksum mismatched"));
    EXPECT_TRUE(checked.log[0].ends_with("node num(1)\n"));
    EXPECT_TRUE(checked.log[1].ends_with("node num(40)\n"));
    const told imported = import_it();
    EXPECT_EQ(imported.log, checked.log);
    EXPECT_EQ(tbl_word_of(root() + "/@EP/EP_TBL", 7), 0x8001);
    EXPECT_EQ(tbl_word_of(root() + "/@EP/EP_TBL", 8), 0);  // past the map's count
    reload();
    const entry_road_scope road;
    EXPECT_EQ(check(), checked);
}

TEST_F(map_scan_of_volume, a_repair_blanks_the_nodes_that_the_entry_road_blanks) {
    std::vector<std::string> nodes;
    std::vector<told> all;
    for (const bool by_entries : {false, true}) {
        make_filled_map(map(), 2521, 3, {{0, 5}, {64, 6}, {2520, 7}});
        spoil_node(map(), 1);
        spoil_node(map(), 40);
        reload();
        entry_road_only = by_entries;
        all.push_back(check(MAP_KIND_LUN, 1));
        all.push_back(check(MAP_KIND_LUN, 1));  // the second one finds nothing
        entry_road_only = false;
        nodes.push_back(hex_of(file_bytes(map(), 1048576, 41 * 512)));
    }
    EXPECT_EQ(nodes[0], nodes[1]);
    EXPECT_EQ(all[0], all[2]);
    EXPECT_EQ(all[1], all[3]);
    EXPECT_EQ(all[1].log, log_lines({}));
    EXPECT_EQ(all[1].output.find("mismatched"), std::string::npos);
}

// A read that fails once is made up for, entry by entry: as if nothing had been.
TEST_F(map_scan_of_volume, whichever_call_of_a_check_fails_once_it_passes_like_an_undisturbed_one) {
    make_filled_map(map(), 63 * 1500, 2, {{1, 5}, {63 * 1400, 6}});
    for (uint64_t node = 0; node < 1500; node++) {
        write_file_bytes(map(), node_offset(node) + 504, "foreign", 4);  // no holes; no checksums
        write_file_bytes(map(), node_offset(node) + 508, "\0\0\0", 4);
    }
    reload();
    const told undisturbed = check();
    EXPECT_EQ(undisturbed.result, 0);
    for (uint64_t n = 1;; n++) {
        const io_fault_at fault(n, EIO, {io_call::read, io_call::seek});
        ASSERT_EQ(check(), undisturbed) << n;
        if (!fault.fired()) {
            EXPECT_GT(n, 2u);
            break;
        }
    }
}

TEST_F(map_scan_of_volume, without_a_disk_the_lines_are_those_of_the_entry_road) {
    make_filled_map(map(), 6300, 2, {{1, 5}, {700, 6}});
    for (const io_call kind : {io_call::read, io_call::seek}) {
        reload();
        std::vector<told> by_runs;
        {
            const io_outage outage(kind);
            by_runs.push_back(check());
            by_runs.push_back(import_it());
        }
        reload();
        const entry_road_scope road;
        const io_outage outage(kind);
        EXPECT_EQ(by_runs[0], check());
        EXPECT_EQ(by_runs[1], import_it());
        EXPECT_LT(by_runs[0].result, 0);
        EXPECT_EQ(by_runs[1].result, -1);
        EXPECT_FALSE(by_runs[0].log.empty());
    }
}

TEST_F(map_scan_of_volume, an_unmap_buffer_ends_in_a_hole_as_on_the_entry_road) {
    make_filled_map(map(), 630000, 63, run_of_entries(63, 40));
    reload();
    const told by_runs = check(MAP_KIND_UNMAP_BUFFER);
    reload();
    const entry_road_scope road;
    EXPECT_EQ(by_runs, check(MAP_KIND_UNMAP_BUFFER));
    EXPECT_TRUE(by_runs.output.ends_with("TARN_INFO: mapped_cnt matched: (63), on-disk(63)\n"));
}
