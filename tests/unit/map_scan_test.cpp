#include "map/map_scan.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <unistd.h>
#include <vector>

#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/scratch_file.h"

static uint64_t node_offset(uint64_t node) {
    return (node + 2048) * 512;
}

// Notes what a scan shows, and holds it to its promise: every node once, in ascending order.
class noting_visitor : public map_visitor {
public:
    explicit noting_visitor(const scratch_file& file) : file_(file) {}
    void blank_nodes(uint64_t first, uint64_t nodes_end) override {
        EXPECT_EQ(first, end);
        EXPECT_GT(nodes_end, first);
        blanks++;
        end = nodes_end;
    }
    map_step node(const map_scan_node& node) override {
        EXPECT_EQ(node.number, end);
        end = node.number + 1;
        if (node.bytes == nullptr) {
            single.push_back(node.number);
            return single.size() < single_nodes_max ? map_step::go_on : map_step::failed;
        }
        in_bulk.push_back(node.number);
        if (memcmp(node.bytes, file_.bytes(node_offset(node.number), 512).data(), 512) != 0) {
            ADD_FAILURE() << "node " << node.number << " is not what the file has";
        }
        return map_step::go_on;
    }

    std::vector<uint64_t> in_bulk;         // numbers of the nodes that are in memory
    std::vector<uint64_t> single;          // and of those that the cache is to read
    size_t single_nodes_max = ~size_t{0};  // the visitor fails at that many
    uint64_t blanks = 0;
    uint64_t end = 0;  // nodes shown

private:
    const scratch_file& file_;
};

static noting_visitor scan_all(int fd, uint64_t node_count, const scratch_file& file) {
    noting_visitor shown(file);
    EXPECT_TRUE(for_each_map_node({fd, node_count, false}, &shown));
    EXPECT_EQ(shown.end, node_count);
    return shown;
}

static std::vector<uint64_t> numbers(uint64_t from, uint64_t to) {
    std::vector<uint64_t> all;
    for (; from < to; from++) {
        all.push_back(from);
    }
    return all;
}

// Ends a scan at its node `last`, as an unmap buffer's scan ends at an unmapped entry.
class ending_visitor : public map_visitor {
public:
    explicit ending_visitor(uint64_t last) : last_(last) {}
    void blank_nodes(uint64_t, uint64_t) override { ADD_FAILURE() << "nodes are skipped"; }
    map_step node(const map_scan_node& node) override {
        shown.push_back(node.number);
        return node.number == last_ ? map_step::finished : map_step::go_on;
    }

    std::vector<uint64_t> shown;

private:
    uint64_t last_;
};

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
    const noting_visitor shown = scan_all(file_.fd(), 2500, file_);
    EXPECT_EQ(shown.in_bulk, numbers(0, 2500));
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(map_scan_of_file, the_last_run_ends_with_the_last_node_asked_for) {
    put_all(0, 1100);
    for (const uint64_t count : {0, 1, 255, 256, 257, 1099}) {
        EXPECT_EQ(scan_all(file_.fd(), count, file_).in_bulk, numbers(0, count));
    }
}

TEST_F(map_scan_of_file, nodes_whose_checksum_does_not_match_are_left_to_the_cache) {
    put_all(0, 20);
    for (const uint64_t node : {3, 4, 19}) {
        file_.write_at(node_offset(node) + 503, uint8_t{1});
    }
    file_.write_at(node_offset(7), uint64_t{77});
    file_.write_at(node_offset(7) + 508, uint32_t{0});  // no checksum: nothing to match
    file_.write_at(node_offset(9) + 504, uint8_t{1});   // the checksum covers reserved bytes
    const noting_visitor shown = scan_all(file_.fd(), 20, file_);
    EXPECT_EQ(shown.single, (std::vector<uint64_t>{3, 4, 9, 19}));
    EXPECT_EQ(shown.in_bulk.size(), 16u);
}

// Each of the three stretches of data is read once.
TEST_F(map_scan_of_file, holes_are_skipped_in_one_step) {
    put(5, 1);
    put(1000000, 2);
    put(1000001, 3);
    put(3000000, 4);
    ASSERT_EQ(truncate(file_.path(), static_cast<off_t>(node_offset(4000000))), 0);
    const io_fault_at reads(0, 0, {io_call::bulk});
    const noting_visitor shown = scan_all(file_.fd(), 5000000, file_);
    EXPECT_LE(shown.blanks, 4u);
    EXPECT_EQ(reads.calls(), 3u);
    // A file system keeps the bytes around them as well, in units of its own.
    EXPECT_LT(shown.in_bulk.size(), 4u * 2048);
    for (const uint64_t node : {5, 1000000, 1000001, 3000000}) {
        EXPECT_TRUE(std::binary_search(shown.in_bulk.begin(), shown.in_bulk.end(), node));
    }
}

TEST_F(map_scan_of_file, data_after_the_last_node_asked_for_is_not_shown) {
    put(5, 1);
    put(3000000, 2);
    EXPECT_LT(scan_all(file_.fd(), 100000, file_).in_bulk.size(), 2048u);
}

TEST_F(map_scan_of_file, a_file_without_data_nodes_is_one_hole) {
    const noting_visitor shown = scan_all(file_.fd(), 777, file_);
    EXPECT_EQ(shown.blanks, 1u);
    EXPECT_EQ(shown.in_bulk, std::vector<uint64_t>{});
    scratch_file shorter(100);
    EXPECT_EQ(scan_all(shorter.fd(), 777, shorter).blanks, 1u);
}

TEST_F(map_scan_of_file, a_node_that_the_file_cuts_short_is_filled_with_zeros) {
    put_all(0, 3);
    ASSERT_EQ(truncate(file_.path(), static_cast<off_t>(node_offset(2) + 200)), 0);
    EXPECT_EQ(scan_all(file_.fd(), 3, file_).in_bulk, numbers(0, 3));  // its checksum was cut off
    ASSERT_EQ(truncate(file_.path(), static_cast<off_t>(node_offset(1) + 509)), 0);
    // One byte of this one was not.
    EXPECT_EQ(scan_all(file_.fd(), 3, file_).single, std::vector<uint64_t>{1});
}

// A count that a damaged header names costs neither memory nor time. The first node that no file
// can have, (2^63 / 512) - 2048, is left to the cache, which cannot read it.
TEST_F(map_scan_of_file, an_absurd_count_is_one_hole_up_to_the_first_node_that_no_file_can_have) {
    put_all(0, 2);
    EXPECT_LE(scan_all(file_.fd(), uint64_t{1} << 53, file_).blanks, 2u);
    noting_visitor shown(file_);
    shown.single_nodes_max = 1;
    EXPECT_FALSE(for_each_map_node({file_.fd(), ~uint64_t{0}, false}, &shown));
    EXPECT_EQ(shown.single, std::vector<uint64_t>{(uint64_t{1} << 54) - 2048});
    EXPECT_LE(shown.blanks, 2u);
    EXPECT_LE(shown.in_bulk.size(), 8u);
}

// Every node: where the file ends is unknown as well.
TEST_F(map_scan_of_file, without_a_file_every_node_is_left_to_the_cache) {
    EXPECT_EQ(scan_all(-1, 5, file_).single, numbers(0, 5));
}

TEST_F(map_scan_of_file, without_bulk_transfers_the_nodes_with_data_are_left_to_the_cache) {
    put_all(0, 1500);
    const single_entry_path path;
    const noting_visitor shown = scan_all(file_.fd(), 3000, file_);
    EXPECT_EQ(shown.single, numbers(0, 1500));
    EXPECT_EQ(shown.blanks, 1u);  // what lies after the end of the file
}

TEST_F(map_scan_of_file, transfers_that_move_a_part_are_continued) {
    put_all(0, 1500);
    bool fired = true;
    for (uint64_t n = 1; fired; n++) {
        const io_fault_at fault(n, 0, {io_call::read});
        ASSERT_EQ(scan_all(file_.fd(), 1500, file_).in_bulk, numbers(0, 1500)) << n;
        fired = fault.fired();
    }
}

// 1500 nodes are six runs.
TEST_F(map_scan_of_file, from_a_run_that_cannot_be_read_on_all_nodes_are_left_to_the_cache) {
    put_all(0, 1500);
    for (const io_call kind : {io_call::bulk, io_call::read}) {
        for (const uint64_t n : {1, 2}) {
            const io_fault_at fault(n, EIO, {kind});
            const noting_visitor shown = scan_all(file_.fd(), 1500, file_);
            EXPECT_EQ(shown.in_bulk, numbers(0, n == 1 ? 0 : 256));
            EXPECT_EQ(shown.single, numbers(n == 1 ? 0 : 256, 1500));
        }
    }
    EXPECT_TRUE(log_.lines().empty());
}

// Its first unmapped entry is the visitor's to find, so a hole is shown as a node.
TEST_F(map_scan_of_file, of_an_unmap_buffer_skips_nothing) {
    ending_visitor in_hole(0);
    EXPECT_TRUE(for_each_map_node({file_.fd(), 1000000, true}, &in_hole));
    EXPECT_EQ(in_hole.shown, numbers(0, 1));
    put_all(0, 2);
    const single_entry_path path;
    ending_visitor after_the_end(2);
    EXPECT_TRUE(for_each_map_node({file_.fd(), 1000000, true}, &after_the_end));
    EXPECT_EQ(after_the_end.shown, numbers(0, 3));
}

// Entries 0, 2 and 5 are mapped.
class map_walk_of_node : public testing::Test {
protected:
    map_walk_of_node() {
        for (const uint64_t slot : {0, 2, 5}) {
            const uint64_t word = MAP_MAPPED_BIT | (100 + slot);
            memcpy(node_.payload + slot * 8, &word, sizeof word);
        }
    }
    // The lpas taken, and where it ended; taking `refused` fails.
    std::vector<uint64_t> walk(uint64_t count, bool ends, uint64_t refused = 0) {
        std::vector<uint64_t> taken;
        end_ = for_each_mapped_entry({7, &node_}, count, ends, [&](uint64_t slot, uint64_t lpa) {
            EXPECT_EQ(lpa, 100 + slot);
            taken.push_back(lpa);
            return lpa != refused;
        });
        return taken;
    }
    void expect_end(map_step step, uint64_t slot) const {
        EXPECT_EQ(end_.step, step);
        EXPECT_EQ(end_.slot, slot);
    }

    data_node node_{};
    map_walk_end end_{};
};

TEST_F(map_walk_of_node, takes_the_mapped_entries_up_to_the_count) {
    EXPECT_EQ(walk(63, false), (std::vector<uint64_t>{100, 102, 105}));
    expect_end(map_step::go_on, 63);
    EXPECT_EQ(walk(5, false), (std::vector<uint64_t>{100, 102}));
    expect_end(map_step::go_on, 5);
}

TEST_F(map_walk_of_node, ends_at_the_first_unmapped_entry_of_an_unmap_buffer) {
    EXPECT_EQ(walk(63, true), std::vector<uint64_t>{100});
    expect_end(map_step::finished, 1);
    EXPECT_EQ(walk(1, true), std::vector<uint64_t>{100});
    expect_end(map_step::go_on, 1);
}

TEST_F(map_walk_of_node, announces_each_entry_16_entries_ahead) {
    const auto take = [](uint64_t, uint64_t) { return true; };
    std::vector<uint64_t> announced;
    memcpy(node_.payload + 16 * 8, "\x07", 1);  // unmapped
    memcpy(node_.payload + 62 * 8, "\x09", 1);
    const auto expect = [&announced](uint64_t lpa) { announced.push_back(lpa); };
    end_ = for_each_mapped_entry({7, &node_}, 63, false, take, expect);
    ASSERT_EQ(announced.size(), 63u - 16);
    EXPECT_EQ(announced.front(), 7u);
    EXPECT_EQ(announced.back(), 9u);
}

TEST_F(map_walk_of_node, fails_where_an_entry_is_refused) {
    EXPECT_EQ(walk(63, false, 102), (std::vector<uint64_t>{100, 102}));
    expect_end(map_step::failed, 2);
}

TEST_F(map_walk_of_node, without_its_bytes_reads_the_entries_of_the_current_map) {
    log_capture log;
    const auto take = [](uint64_t, uint64_t) { return true; };
    end_ = for_each_mapped_entry({7, nullptr}, 63, false, take);  // no map is open
    expect_end(map_step::unreadable, 0);
    EXPECT_EQ(log.lines(), log_lines({"ERR: map_entry_read(#) map file descriptor is invalid\n"}));
}
