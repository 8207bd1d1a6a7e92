// The procedures above a scan of a map, its check and its import, on both paths.
#include <cerrno>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

#include "fri/fri_entries.h"
#include "fri/fri_file.h"
#include "map/map_file.h"
#include "options.h"
#include "store/data_node.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/io_outage.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"
#include "volume/import.h"
#include "volume/map_check.h"

struct report {
    int result;
    std::string output;
    std::vector<std::string> log;
    bool operator==(const report&) const = default;
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
    // 1500 nodes without a hole: six runs, the second one begins at node 256.
    void make_six_runs() {
        make_filled_map(map(), 63 * 1500, 2, {{1, 5}, {63 * 1400, 6}});
        for (uint64_t node = 0; node < 1500; node++) {
            write_file_bytes(map(), data_node_offset(node) + 504, "foreign", 4);  // no checksums
            write_file_bytes(map(), data_node_offset(node) + 508, "\0\0\0", 4);
        }
        reload();
    }
    report check(int32_t kind = MAP_KIND_LUN, int32_t repair = 0) {
        log_.clear();
        stdout_capture out;
        const int result = do_check_map(kind, repair, root().c_str());
        return {result, out.text(), log_.lines()};
    }
    report import_it() {
        log_.clear();
        stdout_capture out;
        const int result = import_loaded(map().c_str(), MAP_KIND_LUN, root().c_str());
        return {result, out.text(), log_.lines()};
    }

    sample_volumes volumes_;
    log_capture log_;
};

// Nodes 0, 120 and 9523 of 10000 hold data.
TEST_F(map_scan_of_volume, a_sparse_map_prints_the_lines_of_the_single_entry_path) {
    make_filled_map(map(), 630000, 3, {{1, 5}, {7560, 6}, {600000, 7}});
    reload();
    const report checked = check();
    const report imported = import_it();
    reload();
    const single_entry_path path;
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

// Each mismatched node is reported once, in the log in the nodes' order and on standard output
// after its progress line; one of them is the last, partial node (entry 2520 of 2521 is its first).
TEST_F(map_scan_of_volume, mismatched_nodes_are_reported_once_in_their_order) {
    make_filled_map(map(), 2521, 4, {{0, 5}, {64, 6}, {2520, 7}, {2521, 8}});
    spoil_node(map(), 1);
    spoil_node(map(), 40);
    reload();
    const report checked = check();
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
    const report imported = import_it();
    EXPECT_EQ(imported.log, checked.log);
    EXPECT_EQ(tbl_word_of(root() + "/@EP/EP_TBL", 7), 0x8001);
    EXPECT_EQ(tbl_word_of(root() + "/@EP/EP_TBL", 8), 0);  // past the map's count
    reload();
    const single_entry_path path;
    EXPECT_EQ(check(), checked);
}

TEST_F(map_scan_of_volume, a_repair_blanks_the_nodes_that_the_single_entry_path_blanks) {
    std::vector<std::string> nodes;
    std::vector<report> all;
    for (const bool by_entries : {false, true}) {
        make_filled_map(map(), 2521, 3, {{0, 5}, {64, 6}, {2520, 7}});
        spoil_node(map(), 1);
        spoil_node(map(), 40);
        reload();
        std::optional<single_entry_path> path;
        if (by_entries) {
            path.emplace();
        }
        all.push_back(check(MAP_KIND_LUN, 1));
        all.push_back(check(MAP_KIND_LUN, 1));  // the second one finds nothing
        nodes.push_back(hex_of(file_bytes(map(), 1048576, 41 * 512)));
    }
    EXPECT_EQ(nodes[0], nodes[1]);
    EXPECT_EQ(all[0], all[2]);
    EXPECT_EQ(all[1], all[3]);
    EXPECT_EQ(all[1].log, log_lines({}));
    EXPECT_EQ(all[1].output.find("mismatched"), std::string::npos);
}

// A read that fails once is repeated on the single-entry path, with the same lines and result.
TEST_F(map_scan_of_volume, whichever_call_of_a_check_fails_once_it_passes_like_an_undisturbed_one) {
    make_six_runs();
    const report undisturbed = check();
    EXPECT_EQ(undisturbed.result, 0);
    for (uint64_t n = 1; n <= 6; n++) {  // six runs
        const io_fault_at fault(n, EIO, {io_call::read});
        ASSERT_EQ(check(), undisturbed) << n;
        EXPECT_TRUE(fault.fired()) << n;
    }
    const io_fault_at count(0, 0, {io_call::read});
    EXPECT_EQ(check(), undisturbed);
    EXPECT_EQ(count.calls(), 6u);
}

TEST_F(map_scan_of_volume, without_a_disk_the_lines_are_those_of_the_single_entry_path) {
    make_filled_map(map(), 6300, 2, {{1, 5}, {700, 6}});
    {
        reload();
        std::vector<report> by_runs;
        {
            const io_outage outage(io_call::read);
            by_runs.push_back(check());
            by_runs.push_back(import_it());
        }
        reload();
        const single_entry_path path;
        const io_outage outage(io_call::read);
        EXPECT_EQ(by_runs[0], check());
        EXPECT_EQ(by_runs[1], import_it());
        EXPECT_LT(by_runs[0].result, 0);
        EXPECT_EQ(by_runs[1].result, -1);
        EXPECT_FALSE(by_runs[0].log.empty());
    }
}

TEST_F(map_scan_of_volume, an_unmap_buffer_ends_in_a_hole_as_on_the_single_entry_path) {
    make_filled_map(map(), 630000, 63, run_of_entries(63, 40));
    reload();
    const report by_runs = check(MAP_KIND_UNMAP_BUFFER);
    reload();
    const single_entry_path path;
    EXPECT_EQ(by_runs, check(MAP_KIND_UNMAP_BUFFER));
    EXPECT_TRUE(by_runs.output.ends_with("TARN_INFO: mapped_cnt matched: (63), on-disk(63)\n"));
}

static struct {
    uint64_t n;  // the run that cannot be read
    bool for_good;
    uint64_t runs;
} failing_run;

static io_verdict fail_run(io_call call, size_t wanted) {
    const bool is_run = call == io_call::read && wanted > 100000;
    failing_run.runs += is_run ? 1 : 0;
    const bool fails = failing_run.for_good ? failing_run.runs >= failing_run.n
                                            : is_run && failing_run.runs == failing_run.n;
    return {call == io_call::read && fails ? EIO : 0, wanted};
}

TEST_F(map_scan_of_volume, whichever_run_of_an_import_fails_once_each_entry_is_counted_once) {
    for (const uint64_t n : {1, 2}) {
        make_tbl(root() + "/@EP/EP_TBL", uuid_of(0x11));
        make_six_runs();
        failing_run = {n, false, 0};
        io_fault = fail_run;
        const report imported = import_it();
        io_fault = nullptr;
        EXPECT_EQ(failing_run.runs, n);  // from there on, entry by entry
        EXPECT_EQ(
            imported,
            (report{
                0, "TARN_INFO: Try to import 2/94500 mappings\n" + progress_lines(0, 100), {}}));
        EXPECT_EQ(tbl_word_of(root() + "/@EP/EP_TBL", 5), 0x8001);
        EXPECT_EQ(tbl_word_of(root() + "/@EP/EP_TBL", 6), 0x8001);
    }
}

// Node 256 is the first that cannot be read: entry 16128. 255 * 100 / 1500 is 17.
TEST_F(map_scan_of_volume, a_disk_that_goes_away_inside_a_scan_ends_it_there) {
    make_six_runs();
    const std::string unread = "ERR: tarn_read_data_node(#) read_fd(-1)\n";
    failing_run = {2, true, 0};
    io_fault = fail_run;
    EXPECT_EQ(
        check(),
        (report{-1, "TARN_INFO: Try to check 1500 data-node\n" + progress_lines(0, 17), {unread}}));
    log_.clear();
    failing_run.runs = 0;
    {
        stdout_capture out;
        EXPECT_EQ(import_map(MAP_KIND_LUN, root().c_str()), -1);
        EXPECT_EQ(out.text(),
                  "TARN_INFO: Try to import 2/94500 mappings\n" + progress_lines(0, 17));
    }
    io_fault = nullptr;
    EXPECT_EQ(log_.lines(),
              log_lines({unread, "ERR: import_map(#) Fail to import map, lea 16128\n"}));
}
