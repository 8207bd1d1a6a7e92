#include "volume/map_check.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "cli/operations.h"
#include "map/map_file.h"
#include "options.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/lost_map.h"
#include "support/paths.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"

class map_check : public testing::Test {
protected:
    map_check() { make_sample_volume(root(), 0x11); }  // with extents of 2^20 bytes
    ~map_check() override { close_map(); }

    std::string root() const { return volumes_.volume(1); }
    std::string map() const { return root() + "/@iSCSITrg/LUN_Extent_1"; }

    void load(uint64_t total, uint64_t mapped, const std::vector<sample_entry>& entries) {
        make_filled_map(map(), total, mapped, entries);
        reload();
    }
    void reload() {
        close_map();
        ASSERT_EQ(load_map(map().c_str()), 0);
    }
    int check(int32_t kind, int32_t repair) { return do_check_map(kind, repair, root().c_str()); }

    sample_volumes volumes_;
    log_capture log_;
};

TEST_F(map_check, sixty_four_entries_are_two_nodes_and_all_126_entries_are_scanned) {
    load(64, 3, {{0, 7}, {63, 8}, {100, 9}});  // lea 100 is in node 1, beyond the count
    stdout_capture out;
    EXPECT_EQ(check(MAP_KIND_LUN, 0), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: Try to check 2 data-node\n" + progress_lines(0, 2) +
                              "TARN_INFO: mapped_cnt matched: (3), on-disk(3)\n");
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(map_check, a_full_scan_shows_the_values_0_to_100_each_once) {
    load(6300, 0, {});
    stdout_capture out;
    EXPECT_EQ(check(MAP_KIND_LUN, 0), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: Try to check 100 data-node\n" + progress_lines(0, 100) +
                              "TARN_INFO: mapped_cnt matched: (0), on-disk(0)\n");
}

TEST_F(map_check, an_unmap_buffer_ends_at_its_first_unmapped_entry) {
    std::vector<sample_entry> entries = run_of_entries(10, 40);
    entries.push_back({11, 90});
    load(630, 10, entries);
    stdout_capture out;
    EXPECT_EQ(check(MAP_KIND_UNMAP_BUFFER, 0), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: Try to check 10 data-node\n" + progress_lines(0, 1) +
                              "TARN_INFO: mapped_cnt matched: (10), on-disk(10)\n");
}

TEST_F(map_check, an_unmap_buffer_without_a_data_node_in_its_file_ends_at_lea_0) {
    load(630, 0, {});
    ASSERT_EQ(truncate(map().c_str(), 1u << 20), 0);
    stdout_capture out;
    EXPECT_EQ(check(MAP_KIND_UNMAP_BUFFER, 0), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: Try to check 10 data-node\n" + progress_lines(0, 1) +
                              "TARN_INFO: mapped_cnt matched: (0), on-disk(0)\n");
}

TEST_F(map_check, a_rod_map_is_scanned_over_the_formula_whatever_its_header_says) {
    load(63, 1, {{540671, 7}});
    stdout_capture out;
    EXPECT_EQ(check(MAP_KIND_ROD, 0), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: Try to check 8583 data-node\n" + progress_lines(0, 100) +
                              "TARN_INFO: mapped_cnt matched: (1), on-disk(1)\n");
}

TEST_F(map_check, a_map_of_no_entries_is_not_scanned) {
    load(0, 0, {});
    stdout_capture out;
    EXPECT_EQ(check(MAP_KIND_LUN, 0), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: Try to check 0 data-node\n" + progress_lines(0, 0) +
                              "TARN_INFO: mapped_cnt matched: (0), on-disk(0)\n");
}

TEST_F(map_check, a_mismatched_node_is_listed_and_counted_as_stored) {
    load(126, 3, {{0, 7}, {5, 9}, {63, 8}});
    spoil_node(map(), 0);  // bit 56 of lea 62: that entry stays unmapped
    const std::vector<uint8_t> before = node_bytes(map(), 0);
    reload();
    stdout_capture out;
    EXPECT_EQ(check(MAP_KIND_LUN, 0), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: Try to check 2 data-node\n" + progress_lines(0, 0) +
                              "TARN_INFO: checksum mismatched: node_num(0)\n"
                              "TARN_INFO:     lea(0), lpa(7)\n"
                              "TARN_INFO:     lea(5), lpa(9)\n" +
                              progress_lines(1, 2) +
                              "TARN_INFO: mapped_cnt matched: (3), on-disk(3)\n");
    EXPECT_EQ(hex_of(node_bytes(map(), 0)), hex_of(before));
}

TEST_F(map_check, repair_blanks_the_node_and_rewrites_the_count_to_the_smaller_tally) {
    load(126, 3, {{0, 7}, {5, 9}, {63, 8}});
    spoil_node(map(), 0);
    reload();
    stdout_capture out;
    EXPECT_EQ(check(MAP_KIND_LUN, 1), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: Try to check 2 data-node\n" + progress_lines(0, 0) +
                              "TARN_INFO: repair: node_num(0)\n"
                              "TARN_INFO: checksum mismatched: node_num(0)\n" +
                              progress_lines(1, 2) +
                              "TARN_INFO: mapped_cnt mismatched: (1), on-disk(3)\n"
                              "TARN_INFO: mapped_cnt repair: (1), on-disk(1)\n");
    EXPECT_EQ(mapped_count_of(map()), 1u);
    const std::vector<uint8_t> node = node_bytes(map(), 0);
    EXPECT_EQ(std::vector<uint8_t>(node.begin(), node.begin() + 508), std::vector<uint8_t>(508, 0));
}

TEST_F(map_check, a_second_repair_finds_nothing) {
    load(126, 3, {{0, 7}, {5, 9}, {63, 8}});
    spoil_node(map(), 0);
    reload();
    {
        stdout_capture ignored;
        EXPECT_EQ(check(MAP_KIND_LUN, 1), 0);
    }
    const std::vector<uint8_t> repaired = file_bytes(map(), 0, (1u << 20) + 1024);
    reload();
    stdout_capture out;
    EXPECT_EQ(check(MAP_KIND_LUN, 1), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: Try to check 2 data-node\n" + progress_lines(0, 2) +
                              "TARN_INFO: mapped_cnt matched: (1), on-disk(1)\n");
    EXPECT_EQ(file_bytes(map(), 0, (1u << 20) + 1024), repaired);
}

TEST_F(map_check, a_wrong_count_is_reported_and_is_not_a_failure) {
    load(126, 5, {{0, 7}});
    stdout_capture out;
    EXPECT_EQ(check(MAP_KIND_LUN, 0), 0);
    EXPECT_TRUE(out.text().ends_with("TARN_INFO: mapped_cnt mismatched: (1), on-disk(5)\n"));
    EXPECT_EQ(mapped_count_of(map()), 5u);
}

TEST_F(map_check, a_count_past_the_largest_file_fails_at_the_first_node_out_of_reach) {
    load(~uint64_t{0} - 1, 0, {});
    stdout_capture out;
    EXPECT_LT(check(MAP_KIND_LUN, 0), 0);
    // (2^64 - 2) / 63 nodes rounded up; a file reaches 2^54 - 2048 of them, which is 6 percent.
    EXPECT_EQ(out.text(),
              "TARN_INFO: Try to check 292805461487453201 data-node\n" + progress_lines(0, 6));
    EXPECT_TRUE(log_.has("fail seek to 9223372036854775808"));
}

TEST_F(map_check, the_nodes_after_the_end_of_the_file_are_unmapped) {
    load(uint64_t{1} << 40, 1, {{3, 7}});
    stdout_capture out;
    EXPECT_EQ(check(MAP_KIND_LUN, 1), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: Try to check 17452565521 data-node\n" +
                              progress_lines(0, 100) +
                              "TARN_INFO: mapped_cnt matched: (1), on-disk(1)\n");
}

TEST_F(map_check, a_count_of_all_ones_fails) {
    load(~uint64_t{0}, 0, {});
    stdout_capture out;
    EXPECT_EQ(check(MAP_KIND_LUN, 0), -1);
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(log_.count("or its count is all ones"), 1u);
}

TEST_F(map_check, without_an_extent_size_there_is_no_check) {
    load(63, 0, {});
    stdout_capture out;
    EXPECT_EQ(do_check_map(MAP_KIND_LUN, 0, (volumes_.root() + "/none").c_str()), -1);
    EXPECT_EQ(out.text(), "");
    EXPECT_TRUE(log_.has("Fail to get extent size of "));
}

TEST_F(map_check, a_repair_fails_at_whichever_transfer_fails_and_passes_undisturbed_ones) {
    const single_entry_path path;
    failed_calls failed;
    for (uint64_t n = 1;; n++) {
        ASSERT_LT(n, 1000u);
        load(126, 3, {{0, 7}, {5, 9}, {63, 8}});
        spoil_node(map(), 0);
        reload();
        stdout_capture out;
        io_fault_at fault(n, EIO, {io_call::read, io_call::write, io_call::seek});
        const int result = check(MAP_KIND_LUN, 1);
        if (!failed.add(fault)) {
            EXPECT_EQ(result, 0);
            // Node 0 is read and blanked, node 1 is read, the five nodes of the header are written.
            EXPECT_EQ(failed.in_order(),
                      "seek read seek write seek read "
                      "seek write seek write seek write seek write seek write");
            break;
        }
        EXPECT_LT(result, 0) << n;
        EXPECT_EQ(map_word_of(map(), 63), uint64_t{1} << 63 | 8) << n;
    }
}

// Such a failure does not change the result of the check, which is that of the node.
TEST_F(map_check, an_entry_that_cannot_be_read_ends_it_with_the_result_of_its_node) {
    const single_entry_path path;
    load(126, 3, {{0, 7}, {63, 8}, {64, 9}});
    for (const bool mismatched : {false, true}) {
        if (mismatched) {
            spoil_node(map(), 1);
        }
        reload();
        log_.clear();
        stdout_capture out;
        const lost_map lost(2);
        EXPECT_EQ(check(MAP_KIND_LUN, 0), mismatched ? 1 : 0);
        EXPECT_EQ(out.text(),
                  "TARN_INFO: Try to check 2 data-node\n" + progress_lines(0, 1) +
                      (mismatched ? "TARN_INFO: checksum mismatched: node_num(1)\n" : ""));
        std::vector<std::string> lines = log_.lines();
        if (mismatched) {
            lines.erase(lines.begin());  // that of the node
        }
        EXPECT_EQ(lines, log_lines({"ERR: map_entry_read(#) map file descriptor is invalid\n",
                                    "ERR: do_check_map(#) tarn_get_mapped_lpa error, lea 63\n"}));
    }
}

TEST_F(map_check, a_count_that_cannot_be_rewritten_fails) {
    load(126, 5, {{0, 7}});
    stdout_capture out;
    const io_fault_at fault(1, ENOSPC, {io_call::write});
    EXPECT_EQ(check(MAP_KIND_LUN, 1), -1);
    EXPECT_TRUE(out.text().ends_with("TARN_INFO: mapped_cnt mismatched: (1), on-disk(5)\n"));
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: tarn_write_meta_node(#) tarn_write_meta_node(-1)\n",
                         "ERR: tarn_save_meta_nodes(#) const meta node[0] save fail\n",
                         "ERR: do_check_map(#) map_count_replay error\n"}));
    EXPECT_EQ(mapped_count_of(map()), 5u);
}

TEST_F(map_check, the_command_fails_on_a_path_outside_every_volume) {
    snprintf(opt_ctx.mappath, sizeof opt_ctx.mappath, "/tmp/nowhere/EP_MAP");
    EXPECT_EQ(check_map(), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: check_map(#) Fail to parse volume path from "
                                       "/tmp/nowhere/EP_MAP\n"}));
}

TEST_F(map_check, the_command_fails_on_a_map_that_does_not_load) {
    snprintf(opt_ctx.mappath, sizeof opt_ctx.mappath, "%s", map().c_str());
    EXPECT_EQ(check_map(), -1);
    EXPECT_TRUE(log_.has("ERR: check_map(#) Fail to load MAP " + map() + "\n"));
    EXPECT_EQ(current_map.fd, 0);
}

TEST_F(map_check, the_command_logs_the_result_of_a_check_that_fails) {
    make_filled_map(map(), 63, 0, {});
    snprintf(opt_ctx.mappath, sizeof opt_ctx.mappath, "%s", map().c_str());
    volumes_.let_platform_fail();
    EXPECT_EQ(check_map(), -1);
    EXPECT_EQ(log_.last(), "ERR: check_map(#) do_check_map error(-1)\n");
    EXPECT_EQ(current_map.fd, 0);
}
