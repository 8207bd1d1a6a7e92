// The single-entry path: a few bytes of a data node read, and patched.
#include <cerrno>
#include <gtest/gtest.h>
#include <vector>

#include "store/data_node.h"
#include "store/descriptor.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/scratch_file.h"

// Node 1 filled with 5a, its checksum field ff: no valid checksum.
static void fill_node_1(scratch_file* file) {
    std::vector<uint8_t> node(512, 0x5A);
    node[508] = node[509] = node[510] = node[511] = 0xFF;
    file->write_bytes(1048576 + 512, node.data(), node.size());
}

TEST(data_bytes, a_patch_keeps_the_other_bytes_and_seals_the_node) {
    scratch_file file;
    fill_node_1(&file);
    const uint8_t bytes[] = {0x11, 0x22};

    EXPECT_EQ(patch_data_node(file.fd(), 1, 10, bytes, 2), patch_result::done);

    std::vector<uint8_t> wanted(508, 0x5A);
    wanted[10] = 0x11;
    wanted[11] = 0x22;
    static constexpr uint8_t CHECKSUM[] = {0x7D, 0x3D, 0xFE, 0xF0};  // from another program
    for (const uint8_t byte : CHECKSUM) {
        wanted.push_back(byte);
    }
    EXPECT_EQ(hex_of(file.bytes(1048576 + 512, 512)), hex_of(wanted));
    EXPECT_EQ(hex_of(file.bytes(1048576, 512)), hex_of(std::vector<uint8_t>(512, 0)));
    EXPECT_EQ(file.size(), 1048576u + 1024);
}

TEST(data_bytes, a_patch_at_the_end_of_the_file_writes_a_whole_node) {
    scratch_file file(1048576 + 100);
    const uint8_t byte = 0x80;
    EXPECT_EQ(patch_data_node(file.fd(), 0, 0, &byte, 1), patch_result::done);
    EXPECT_EQ(file.size(), 1048576u + 512);
}

TEST(data_bytes, bytes_are_read_without_checking_the_checksum) {
    scratch_file file;
    fill_node_1(&file);
    log_capture log;
    uint8_t bytes[2] = {};
    EXPECT_EQ(read_data_bytes(file.fd(), 1, 506, bytes, 2), 2);
    EXPECT_EQ(hex_of(bytes), "5a 5a ");
    EXPECT_TRUE(log.lines().empty());
}

TEST(data_bytes, past_the_end_of_the_file_they_are_zero) {
    scratch_file file(1048576 + 5);
    file.write_at(1048576 + 4, uint8_t{0x77});
    uint8_t bytes[4] = {9, 9, 9, 9};
    EXPECT_EQ(read_data_bytes(file.fd(), 0, 4, bytes, 4), 1);
    EXPECT_EQ(hex_of(bytes), "77 00 00 00 ");
    EXPECT_EQ(read_data_bytes(file.fd(), 0, 8, bytes, 4), 0);
    EXPECT_EQ(hex_of(bytes), "00 00 00 00 ");
}

TEST(data_bytes, a_node_past_the_largest_offset_is_neither_read_nor_patched) {
    scratch_file file(1048576 + 512);
    uint8_t byte = 1;
    log_capture log;
    for (const uint64_t node : {uint64_t{1} << 54, uint64_t{1} << 55, ~uint64_t{0}}) {
        EXPECT_LT(read_data_bytes(file.fd(), node, 300, &byte, 1), 0);
        EXPECT_EQ(patch_data_node(file.fd(), node, 300, &byte, 1), patch_result::read_failed);
    }
    EXPECT_EQ(log.count("fail seek to"), 6u);
    EXPECT_EQ(hex_of(file.bytes(1048576, 512)), hex_of(std::vector<uint8_t>(512, 0)));
}

TEST(data_bytes, a_read_that_stops_short_inside_the_file_is_a_failure) {
    scratch_file file;
    fill_node_1(&file);
    uint8_t bytes[2] = {};
    {
        const io_fault_at fault(1, 0, {io_call::read});
        EXPECT_LT(read_data_bytes(file.fd(), 1, 10, bytes, 2), 0);
    }
    {
        const io_fault_at fault(1, 0, {io_call::read});
        EXPECT_EQ(patch_data_node(file.fd(), 1, 10, bytes, 2), patch_result::read_failed);
    }
    EXPECT_EQ(file.read_at<uint8_t>(1048576 + 1020), 0xFF);  // not written
}

TEST(data_bytes, whichever_call_of_a_patch_fails_the_node_is_entirely_old_or_entirely_new) {
    const uint8_t byte = 0x11;
    failed_calls failed;
    uint64_t n = 1;
    for (bool fired = true; fired; n++) {
        scratch_file file;
        fill_node_1(&file);
        const std::string before = hex_of(file.bytes(1048576 + 512, 512));
        patch_result result = patch_result::done;
        {
            const io_fault_at fault(n, EIO);
            result = patch_data_node(file.fd(), 1, 10, &byte, 1);
            fired = failed.add(fault);
        }
        EXPECT_EQ(result == patch_result::done, !fired) << n;
        EXPECT_EQ(hex_of(file.bytes(1048576 + 512, 512)) == before, fired) << n;
    }
    EXPECT_EQ(failed.in_order(), "seek read seek write");
}
