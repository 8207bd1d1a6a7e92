#include "store/meta_node.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "store/descriptor.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/scratch_file.h"

// A node whose payload bytes are 4, 5, ... 63. Its checksum, from another program: 3aedabc7.
static meta_node counted_node() {
    meta_node node{};
    for (size_t i = 0; i < sizeof node.payload; i++) {
        node.payload[i] = static_cast<uint8_t>(i + 4);
    }
    return node;
}

TEST(meta_node, a_written_node_carries_its_checksum_on_disk_and_in_memory) {
    scratch_file file;
    meta_node node = counted_node();
    node.checksum = 0x99999999;  // the old value is ignored

    EXPECT_EQ(tarn_write_meta_node(file.fd(), &node, 3), 64);

    EXPECT_EQ(node.checksum, 0x3AEDABC7u);
    EXPECT_EQ(file.size(), 256u);
    EXPECT_EQ(hex_of(file.bytes(192, 8)), "c7 ab ed 3a 04 05 06 07 ");
}

TEST(meta_node, const_node_i_is_node_i_and_var_node_j_lies_at_4096_and_64_bytes_each) {
    scratch_file file;
    meta_node node = counted_node();
    EXPECT_EQ(tarn_write_const_meta_node(file.fd(), &node, 1), 64);
    EXPECT_EQ(tarn_write_var_meta_node(file.fd(), &node, 2), 64);
    EXPECT_EQ(hex_of(file.bytes(64, 4)), "c7 ab ed 3a ");
    EXPECT_EQ(hex_of(file.bytes(4096 + 128, 4)), "c7 ab ed 3a ");
    EXPECT_EQ(file.size(), 4096u + 192);

    meta_node got{};
    EXPECT_EQ(tarn_read_const_meta_node(file.fd(), &got, 1), 64);
    EXPECT_EQ(hex_of(got), hex_of(node));
    got = {};
    EXPECT_EQ(tarn_read_var_meta_node(file.fd(), &got, 2), 64);
    EXPECT_EQ(hex_of(got), hex_of(node));
}

TEST(meta_node, a_node_never_written_is_empty_and_holds_the_checksum_of_zero_bytes) {
    scratch_file file(96);  // node 1 ends after the file, node 2 begins there
    for (const uint32_t k : {0u, 1u, 2u, 70u}) {
        meta_node node = counted_node();
        EXPECT_EQ(tarn_read_meta_node(file.fd(), &node, k), 0) << k;
        EXPECT_EQ(node.checksum, 0x03C8EB67u) << k;
        EXPECT_EQ(node.payload[0], 0) << k;
    }
}

TEST(meta_node, its_state_follows_from_its_bytes_alone) {
    meta_node node = counted_node();
    EXPECT_EQ(meta_node_state(&node), node_state::unsummed);
    node.checksum = 0x3AEDABC7;
    EXPECT_EQ(meta_node_state(&node), node_state::right);
    EXPECT_EQ(node.checksum, 0x3AEDABC7u);  // the node is unchanged
    node.checksum = 0x3AEDABC6;
    EXPECT_EQ(meta_node_state(&node), node_state::wrong);
    node.checksum = 0x3AEDABC7;
    node.payload[59] ^= 0x80;
    EXPECT_EQ(meta_node_state(&node), node_state::wrong);

    meta_node blank{};
    EXPECT_EQ(meta_node_state(&blank), node_state::empty);
    blank.checksum = 0x03C8EB67;  // of 64 zero bytes
    EXPECT_EQ(meta_node_state(&blank), node_state::right);
    blank = {};
    blank.payload[59] = 1;
    EXPECT_EQ(meta_node_state(&blank), node_state::unsummed);
}

TEST(meta_node, a_filled_node_without_a_checksum_is_corrupt) {
    scratch_file file(64);
    file.write_at(63, uint8_t{1});
    meta_node node{};
    log_capture log;
    EXPECT_EQ(tarn_read_meta_node(file.fd(), &node, 0), -1);
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: tarn_read_meta_node(#) tarn_read_meta_node(-1) checksum error "
                         "(checksum corrupted) !\n"}));
}

TEST(meta_node, any_flipped_bit_makes_the_load_fail) {
    scratch_file file;
    meta_node node = counted_node();
    ASSERT_EQ(tarn_write_meta_node(file.fd(), &node, 0), 64);
    for (uint64_t at = 0; at < 64; at++) {
        const auto byte = file.read_at<uint8_t>(at);
        file.write_at(at, static_cast<uint8_t>(byte ^ 0x10));
        log_capture log;
        meta_node got{};
        EXPECT_EQ(tarn_read_meta_node(file.fd(), &got, 0), -1) << at;
        EXPECT_EQ(log.lines(), log_lines({"ERR: tarn_read_meta_node(#) tarn_read_meta_node "
                                          "checksum error !\n"}));
        file.write_at(at, byte);
    }
}

TEST(meta_node, a_node_that_the_file_cuts_fails_its_checksum) {
    scratch_file file;
    meta_node node = counted_node();
    ASSERT_EQ(tarn_write_meta_node(file.fd(), &node, 0), 64);
    const std::vector<uint8_t> bytes = file.bytes(0, 40);
    scratch_file cut;
    cut.write_bytes(0, bytes.data(), bytes.size());
    log_capture log;
    EXPECT_EQ(tarn_read_meta_node(cut.fd(), &node, 0), -1);
    EXPECT_TRUE(log.has("checksum error !"));
}

TEST(meta_node, a_failing_transfer_is_logged_with_its_result) {
    scratch_file file(64);
    meta_node node = counted_node();
    log_capture log;
    {
        const io_fault_at fault(1, EIO, {io_call::write});
        EXPECT_EQ(tarn_write_meta_node(file.fd(), &node, 0), -1);
    }
    node.checksum = 5;
    {
        const io_fault_at fault(1, EIO, {io_call::read});
        EXPECT_EQ(tarn_read_meta_node(file.fd(), &node, 0), -1);
    }
    EXPECT_EQ(node.checksum, 0u);
    EXPECT_EQ(log.lines(), log_lines({"ERR: tarn_write_meta_node(#) tarn_write_meta_node(-1)\n",
                                      "ERR: tarn_read_meta_node(#) tarn_read_meta_node(-1)\n"}));
}

// Three nodes: two constant, one variable.
struct header_of_three {
    uint8_t bytes[192];
};

static header_of_three filled_header() {
    header_of_three header{};
    for (size_t i = 0; i < sizeof header.bytes; i++) {
        header.bytes[i] = static_cast<uint8_t>(i + 1);
    }
    return header;
}

TEST(meta_nodes, a_saved_header_loads_back_identically_checksums_included) {
    scratch_file file;
    header_of_three saved = filled_header();
    ASSERT_EQ(tarn_save_meta_nodes(file.fd(), &saved, 2, 1), 0);
    EXPECT_EQ(file.size(), 4096u + 64);

    header_of_three loaded{};
    EXPECT_EQ(tarn_load_meta_nodes(file.fd(), &loaded, 2, 1), 0);

    EXPECT_EQ(hex_of(loaded), hex_of(saved));
    EXPECT_EQ(hex_of(file.bytes(0, 128)), hex_of_bytes(saved.bytes, 128));
    EXPECT_EQ(hex_of(file.bytes(4096, 64)), hex_of_bytes(saved.bytes + 128, 64));
    EXPECT_EQ(hex_of_bytes(saved.bytes + 4, 60), hex_of_bytes(filled_header().bytes + 4, 60));
}

TEST(meta_nodes, without_variable_nodes_nothing_from_4096_on_is_touched) {
    scratch_file file(8192);
    file.write_at(4096, uint32_t{0xBADBADBA});  // no valid node: reading it would fail
    header_of_three header = filled_header();
    EXPECT_EQ(tarn_save_meta_nodes(file.fd(), &header, 2, 0), 0);
    EXPECT_EQ(tarn_load_meta_nodes(file.fd(), &header, 2, 0), 0);
    EXPECT_EQ(file.read_at<uint32_t>(4096), 0xBADBADBAu);
}

TEST(meta_nodes, constant_nodes_beyond_the_count_are_neither_read_nor_written) {
    scratch_file file(8192);
    file.write_at(128, uint32_t{0xBADBADBA});
    header_of_three header = filled_header();
    EXPECT_EQ(tarn_save_meta_nodes(file.fd(), &header, 2, 1), 0);
    EXPECT_EQ(tarn_load_meta_nodes(file.fd(), &header, 2, 1), 0);
    EXPECT_EQ(file.read_at<uint32_t>(128), 0xBADBADBAu);
}

TEST(meta_nodes, a_missing_file_or_array_is_logged) {
    header_of_three header{};
    log_capture log;
    EXPECT_EQ(tarn_save_meta_nodes(0, &header, 2, 1), -1);
    EXPECT_EQ(tarn_save_meta_nodes(9, nullptr, 2, 1), -1);
    EXPECT_EQ(tarn_load_meta_nodes(0, &header, 2, 1), -1);
    EXPECT_EQ(tarn_load_meta_nodes(9, nullptr, 2, 1), -1);
    EXPECT_EQ(log.lines(), log_lines({"ERR: tarn_save_meta_nodes(#) fd NULL pointer\n",
                                      "ERR: tarn_save_meta_nodes(#) nodes NULL pointer\n",
                                      "ERR: tarn_load_meta_nodes(#) fd NULL pointer\n",
                                      "ERR: tarn_load_meta_nodes(#) nodes NULL pointer\n"}));
}

static const char* const NODE_WORDS[] = {"const meta node[0]", "const meta node[1]",
                                         "var meta node[0]"};

TEST(meta_nodes, the_first_write_that_fails_ends_the_save) {
    for (uint64_t n = 1; n <= 3; n++) {
        scratch_file file;
        header_of_three header = filled_header();
        log_capture log;
        const io_fault_at fault(n, EIO, {io_call::write});
        EXPECT_EQ(tarn_save_meta_nodes(file.fd(), &header, 2, 1), -1);
        EXPECT_EQ(fault.calls(), n);
        EXPECT_TRUE(log.has(std::string(NODE_WORDS[n - 1]) + " save fail\n")) << n;
    }
}

// The header is one transfer. A read that returns only its beginning fails at the first missing
// node.
TEST(meta_nodes, the_first_node_that_cannot_be_read_ends_the_load_and_what_was_read_stays) {
    static size_t limit;
    static uint64_t reads;
    const auto stop_after = [](io_call call, size_t wanted) -> io_verdict {
        if (call != io_call::read) {
            return {0, wanted};
        }
        return reads++ == 0 && limit > 0 ? io_verdict{0, limit} : io_verdict{EIO, wanted};
    };
    scratch_file file(1048576);
    header_of_three saved = filled_header();
    ASSERT_EQ(tarn_save_meta_nodes(file.fd(), &saved, 2, 1), 0);
    const size_t limits[] = {0, 100, 4159};  // bytes before the failure
    for (size_t n = 0; n < 3; n++) {
        header_of_three loaded{};
        log_capture log;
        limit = limits[n];
        reads = 0;
        io_fault = stop_after;
        EXPECT_EQ(tarn_load_meta_nodes(file.fd(), &loaded, 2, 1), -1);
        io_fault = nullptr;
        EXPECT_TRUE(log.has(std::string(NODE_WORDS[n]) + " read fail\n")) << n;
        EXPECT_TRUE(log.has("ERR: tarn_read_meta_node(#) tarn_read_meta_node(-1)\n"));
        EXPECT_EQ(hex_of_bytes(loaded.bytes, n * 64), hex_of_bytes(saved.bytes, n * 64));
    }
}

TEST(meta_nodes, a_header_is_loaded_with_one_read) {
    scratch_file file(1048576);
    header_of_three saved = filled_header();
    ASSERT_EQ(tarn_save_meta_nodes(file.fd(), &saved, 2, 1), 0);
    header_of_three loaded{};
    const io_fault_at reads(0, 0, {io_call::read});
    EXPECT_EQ(tarn_load_meta_nodes(file.fd(), &loaded, 2, 1), 0);
    EXPECT_EQ(reads.calls(), 1u);
    EXPECT_EQ(hex_of(loaded), hex_of(saved));
}

TEST(meta_nodes, a_file_never_written_loads_and_its_magic_code_is_wrong) {
    scratch_file file(8192);
    header_of_three header = filled_header();
    EXPECT_EQ(tarn_load_meta_nodes(file.fd(), &header, 2, 1), 0);
    log_capture log;
    EXPECT_EQ(meta_hdr_d2m(&header), -1);
    EXPECT_EQ(log.lines(), log_lines({"ERR: meta_hdr_d2m(#) mismatched MAGIC_CODE, "
                                      "hdr->magic_code(0000000000000000)\n"}));
}

TEST(meta_nodes, the_magic_code_on_disk_is_33_06_14_18_52_25_86_08) {
    uint8_t header[64] = {};
    const uint8_t magic[] = {0x33, 0x06, 0x14, 0x18, 0x52, 0x25, 0x86, 0x08};
    memcpy(header + 8, magic, sizeof magic);
    EXPECT_EQ(meta_hdr_d2m(header), 0);
    header[15] ^= 1;
    EXPECT_EQ(meta_hdr_d2m(header), -1);
}
