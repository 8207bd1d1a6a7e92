#include "map/map_file.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>

#include "store/meta_node.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"

namespace {

// A file whose header holds a different value in every field.
class map_file_of : public testing::Test {
protected:
    map_file_of() {
        for (size_t i = 0; i < sizeof header_; i++) {  // the unused bytes too
            reinterpret_cast<uint8_t*>(&header_)[i] = static_cast<uint8_t>(i);
        }
        header_.map_version = 65536;
        header_.map_magic_code = 0x0886255218140633;
        header_.map_type = 4;
        header_.map_attribute = 0xAB;
        header_.map_lb_size = 512;
        header_.map_total_count = 0x100000001;
        header_.map_parent_total_count = 0xFFFFFFFFFFFFFFFF;
        header_.map_mapped_count = 12345678901;
        header_.map_sync_count = 77;
        header_.map_child_attr = 0xC;
        save_header();
    }
    ~map_file_of() override { close_map(); }
    void save_header() { ASSERT_EQ(tarn_save_meta_nodes(file_.fd(), &header_, 2, 3), 0); }

    scratch_file file_{1048576};
    map_header header_{};
    log_capture log_;
};

const std::string NO_MAP = "map file descriptor is invalid\n";

}  // namespace

TEST_F(map_file_of, a_loaded_map_has_the_header_of_the_file_and_an_empty_cache) {
    current_map.cache.node_num = 5;
    ASSERT_EQ(load_map(file_.path()), 0);
    EXPECT_EQ(hex_of(current_map.header), hex_of(header_));
    EXPECT_EQ(current_map.cache.node_num, 0xFFFFFFFFFFFFFFFFu);
    EXPECT_EQ(tarn_map_lea_total_cnt(), 0x100000001u);
    EXPECT_EQ(tarn_map_lea_mapped_cnt(), 12345678901u);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(map_file_of, a_wrong_magic_code_is_logged_and_the_map_loads) {
    header_.map_magic_code = 0x0886255218140634;
    save_header();
    EXPECT_EQ(load_map(file_.path()), 0);
    EXPECT_EQ(tarn_map_lea_total_cnt(), 0x100000001u);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: meta_hdr_d2m(#) mismatched MAGIC_CODE, "
                                       "hdr->magic_code(0886255218140634)\n"}));
}

TEST_F(map_file_of, without_a_map_every_operation_is_logged) {
    EXPECT_EQ(tarn_map_lea_total_cnt(), 0xFFFFFFFFFFFFFFFFu);
    EXPECT_EQ(tarn_map_lea_mapped_cnt(), 0xFFFFFFFFFFFFFFFFu);
    EXPECT_EQ(save_map(), -1);
    stdout_capture out;
    EXPECT_EQ(dump_map_meta(), -1);
    EXPECT_EQ(out.text(), "");
    close_map();  // nothing to do
    EXPECT_EQ(load_map(nullptr), -1);
    EXPECT_EQ(
        log_.lines(),
        log_lines({"ERR: tarn_map_lea_total_cnt(#) " + NO_MAP,
                   "ERR: tarn_map_lea_mapped_cnt(#) " + NO_MAP, "ERR: save_map(#) " + NO_MAP,
                   "ERR: dump_map_meta(#) " + NO_MAP, "ERR: load_map(#) name NULL pointer\n"}));
    EXPECT_EQ(load_map("/nonexistent"), -1);
    EXPECT_EQ(log_.last(), "ERR: load_map(#) " + NO_MAP);
    EXPECT_EQ(current_map.fd, 0);
}

TEST_F(map_file_of, a_damaged_header_fails_and_leaves_the_descriptor_to_the_caller) {
    file_.write_at(4096 + 64 + 20, uint8_t{0});  // in variable node 1
    EXPECT_EQ(load_map(file_.path()), -1);
    EXPECT_EQ(log_.last(), "ERR: tarn_load_meta_nodes(#) var meta node[1] read fail\n");
    const int fd = current_map.fd;
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    const io_fault_at syncs(0, 0, {io_call::sync});
    close_map();
    EXPECT_EQ(syncs.calls(), 0u);  // nothing was written
    EXPECT_EQ(current_map.fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(map_file_of, a_save_writes_the_five_header_nodes_and_nothing_else) {
    const uint8_t pool = 0x55;
    file_.write_at(8192, pool);
    const std::string before = hex_of(file_.bytes(0, 4096));
    const std::string after = hex_of(file_.bytes(4096 + 64, 1024));
    ASSERT_EQ(load_map(file_.path()), 0);
    current_map.header.map_mapped_count = 3;
    const std::string in_memory = hex_of(current_map.header);
    const io_fault_at writes(0, 0, {io_call::write});
    EXPECT_EQ(save_map(), 0);
    EXPECT_EQ(writes.calls(), 5u);
    EXPECT_EQ(hex_of(current_map.header), in_memory);  // its checksums too
    EXPECT_EQ(hex_of(file_.bytes(0, 4096)), before);
    EXPECT_EQ(hex_of(file_.bytes(4096 + 64, 1024)), after);
    EXPECT_EQ(file_.read_at<uint64_t>(4100), 3u);
    EXPECT_EQ(file_.read_at<uint8_t>(8192), 0x55);
    EXPECT_EQ(file_.size(), 1048576u);
    close_map();
    ASSERT_EQ(load_map(file_.path()), 0);  // sealed again
}

TEST_F(map_file_of, a_save_fails_at_whichever_write_fails) {
    ASSERT_EQ(load_map(file_.path()), 0);
    for (uint64_t n = 1; n <= 5; n++) {
        log_.clear();
        const io_fault_at fault(n, EIO, {io_call::write});
        EXPECT_EQ(save_map(), -1) << n;
        EXPECT_EQ(log_.count("meta node["), 1u);
    }
}

TEST_F(map_file_of, a_load_fails_at_whichever_call_fails) {
    failed_calls failed;
    uint64_t n = 1;
    for (bool fired = true; fired; n++) {
        log_.clear();
        const io_fault_at fault(n, EIO, {io_call::open, io_call::seek, io_call::read});
        const int result = load_map(file_.path());
        fired = failed.add(fault);
        EXPECT_EQ(result, fired ? -1 : 0) << n;
        EXPECT_EQ(log_.lines().empty(), !fired) << n;
        close_map();
    }
    EXPECT_EQ(failed.in_order(), "open seek read");
}

TEST_F(map_file_of, get_map_count_stores_the_mapped_count_and_leaves_the_map_open) {
    uint64_t count = 7;
    EXPECT_EQ(get_map_count(nullptr, nullptr), -1);
    EXPECT_EQ(get_map_count(file_.path(), nullptr), -1);
    EXPECT_EQ(get_map_count("/nonexistent", &count), -1);
    EXPECT_EQ(count, 7u);
    EXPECT_EQ(log_.lines().front(), "ERR: get_map_count(#) NULL pointer of path\n");
    EXPECT_TRUE(log_.has("ERR: get_map_count(#) NULL pointer of pCount\n"));
    EXPECT_EQ(log_.last(), "ERR: get_map_count(#) Fail to load MAP /nonexistent\n");
    EXPECT_EQ(get_map_count(file_.path(), &count), 0);
    EXPECT_EQ(count, 12345678901u);
    EXPECT_NE(current_map.fd, 0);
}

TEST_F(map_file_of, the_dump_shows_the_low_half_of_the_magic_code_and_every_shown_field) {
    ASSERT_EQ(load_map(file_.path()), 0);
    stdout_capture out;
    EXPECT_EQ(dump_map_meta(), 0);
    EXPECT_EQ(out.text(),
              "TARN_INFO: map_version              65536\n"
              "TARN_INFO: map_magic_code           0x18140633\n"
              "TARN_INFO: map_type                 4\n"
              "TARN_INFO: map_attribute            0x000000ab\n"
              "TARN_INFO: map_uuid                 14151617-1819-1a1b-1c1d-1e1f20212223\n"
              "TARN_INFO: map_lb_size              512\n"
              "TARN_INFO: map_total_count          4294967297\n"
              "TARN_INFO: map_parent_uuid          54555657-5859-5a5b-5c5d-5e5f60616263\n"
              "TARN_INFO: map_parent_total_count   18446744073709551615\n"
              "TARN_INFO: map_mapped_count         12345678901\n"
              "TARN_INFO: map_sync_count           77\n"
              "TARN_INFO: map_child_attr           0000000c\n");
}
