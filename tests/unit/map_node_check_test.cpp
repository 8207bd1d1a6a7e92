#include <cerrno>
#include <gtest/gtest.h>

#include "map/map_entries.h"
#include "map/map_file.h"
#include "map/map_scan.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/sample_maps.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"

namespace {

// The current map: node 0 is sound, node 1 has a checksum that does not match.
class map_node_check : public testing::Test {
protected:
    map_node_check() : path_(dir_.file("EP_MAP")) {
        make_filled_map(path_, 200, 3, {{0, 1000}, {63, 2000}, {125, 3000}});
        spoil_node(path_, 1);
        EXPECT_EQ(load_map(path_.c_str()), 0);
    }
    ~map_node_check() override { close_map(); }

    scratch_dir dir_;
    std::string path_;
    log_capture log_;
};

}  // namespace

TEST_F(map_node_check, distinguishes_sound_mismatched_and_never_written_nodes) {
    EXPECT_EQ(tarn_map_data_node_check(0), 0);
    EXPECT_EQ(tarn_map_data_node_check(99), 0);
    EXPECT_EQ(log_.lines(), log_lines({}));
    EXPECT_EQ(tarn_map_data_node_check(1), 1);
    EXPECT_EQ(current_map.cache.node_num, 1u);
    EXPECT_EQ(log_.count("data chksum mismatched"), 1u);
}

TEST_F(map_node_check, without_a_map_it_fails) {
    close_map();
    EXPECT_EQ(tarn_map_data_node_check(0), -1);
    stdout_capture out;
    EXPECT_EQ(tarn_map_data_node_check_and_repair(0), -1);
    EXPECT_EQ(out.text(), "");
    const std::string line = "ERR: tarn_map_data_node_check(#) map file descriptor is invalid\n";
    EXPECT_EQ(log_.lines(), log_lines({line, line}));
}

TEST_F(map_node_check, a_repair_of_a_sound_node_writes_and_prints_nothing) {
    stdout_capture out;
    const io_fault_at count(0, 0, {io_call::write});
    EXPECT_EQ(tarn_map_data_node_check_and_repair(0), 0);
    EXPECT_EQ(count.calls(), 0u);
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(map_node_check, a_repair_blanks_the_node_and_no_other) {
    const std::string node_0 = hex_of(node_bytes(path_, 0));
    stdout_capture out;
    EXPECT_EQ(tarn_map_data_node_check_and_repair(1), 1);
    EXPECT_EQ(out.text(), "TARN_INFO: repair: node_num(1)\n");
    close_map();
    log_.clear();
    ASSERT_EQ(load_map(path_.c_str()), 0);
    EXPECT_EQ(tarn_map_data_node_check(1), 0);
    for (uint64_t lea = 63; lea < 126; lea++) {
        EXPECT_EQ(tarn_get_mapped_lpa(lea, nullptr), 0) << lea;
    }
    EXPECT_EQ(hex_of(node_bytes(path_, 0)), node_0);
    EXPECT_EQ(mapped_count_of(path_), 3u);  // the caller counts again
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(map_node_check, a_node_that_cannot_be_read_is_not_repaired) {
    stdout_capture out;
    const std::string before = hex_of(node_bytes(path_, 1));
    const io_fault_at fault(1, EIO, {io_call::read});
    EXPECT_LT(tarn_map_data_node_check_and_repair(1), 0);
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(hex_of(node_bytes(path_, 1)), before);
}

TEST_F(map_node_check, a_repair_that_cannot_be_written_fails_and_is_still_printed) {
    stdout_capture out;
    const std::string before = hex_of(node_bytes(path_, 1));
    const io_fault_at fault(1, EIO, {io_call::write});
    EXPECT_EQ(tarn_map_data_node_check_and_repair(1), -1);
    EXPECT_EQ(out.text(), "TARN_INFO: repair: node_num(1)\n");
    EXPECT_EQ(log_.last(),
              "ERR: tarn_map_data_node_check_and_repair(#) tarn_cache_node_flush is failed\n");
    EXPECT_EQ(hex_of(node_bytes(path_, 1)), before);
}
