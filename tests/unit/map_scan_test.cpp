#include "map/map_scan.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/scratch_file.h"

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

TEST_F(map_scan_of_file, there_is_none_without_a_file) {
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
