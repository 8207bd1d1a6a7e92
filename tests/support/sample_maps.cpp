#include "support/sample_maps.h"

#include <cstring>
#include <gtest/gtest.h>

#include "fri/fri_format.h"
#include "map/map_format.h"
#include "store/crc32c.h"
#include "store/data_node.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "tbl/tbl_format.h"
#include "volume/dat_file.h"

static uint64_t u64_at(const std::string& path, uint64_t offset) {
    uint64_t value = 0;
    memcpy(&value, file_bytes(path, offset, sizeof value).data(), sizeof value);
    return value;
}

// Brings the checksum of a 64-byte header node up to date.
static void seal_header_node(const std::string& path, uint64_t offset) {
    std::vector<uint8_t> node = file_bytes(path, offset, META_NODE_SIZE);
    memset(node.data(), 0, sizeof(uint32_t));
    uint32_t checksum = 0;
    tarn_crc32c(node.data(), META_NODE_SIZE, &checksum);
    memcpy(node.data(), &checksum, sizeof checksum);
    write_file_bytes(path, offset, node.data(), node.size());
}

static void set_in_node(const std::string& path, uint64_t node_num, size_t at, const void* bytes,
                        size_t len) {
    data_node node{};
    memcpy(&node, file_bytes(path, data_node_offset(node_num), sizeof node).data(), sizeof node);
    memcpy(node.payload + at, bytes, len);
    data_node_seal(&node);
    write_file_bytes(path, data_node_offset(node_num), &node, sizeof node);
}

void set_header_u64(const std::string& path, uint64_t node, uint64_t offset, uint64_t value) {
    write_file_bytes(path, offset, &value, sizeof value);
    seal_header_node(path, node);
}

void make_filled_map(const std::string& path, uint64_t total, uint64_t mapped,
                     const std::vector<sample_entry>& entries) {
    make_empty_file(path);
    make_map(path, uuid_of_number(1), uuid_of(0x11));
    set_header_u64(path, 64, 76, total);
    set_header_u64(path, 4096, 4096 + 4, mapped);
    for (const sample_entry& entry : entries) {
        const uint64_t word = uint64_t{1} << 63 | entry.lpa;
        set_in_node(path, entry.lea / 63, entry.lea % 63 * 8, &word, sizeof word);
    }
}

std::vector<sample_entry> run_of_entries(uint64_t count, uint64_t lpa) {
    std::vector<sample_entry> entries;
    for (uint64_t lea = 0; lea < count; lea++) {
        entries.push_back({lea, lpa + lea});
    }
    return entries;
}

uint64_t mapped_count_of(const std::string& map_path) {
    return u64_at(map_path, 4096 + 4);
}

void spoil_node(const std::string& path, uint64_t node) {
    const uint64_t offset = data_node_offset(node) + 503;
    std::vector<uint8_t> byte = file_bytes(path, offset, 1);
    byte[0] ^= 1;
    write_file_bytes(path, offset, byte.data(), 1);
}

std::vector<uint8_t> node_bytes(const std::string& path, uint64_t node) {
    return file_bytes(path, data_node_offset(node), DATA_NODE_SIZE);
}

void set_tbl_word(const std::string& path, uint64_t lpa, uint16_t word) {
    set_in_node(path, lpa / 252, lpa % 252 * 2, &word, sizeof word);
}

void set_fri_word(const std::string& path, uint64_t group, uint64_t word) {
    set_in_node(path, group / 63, group % 63 * 8, &word, sizeof word);
}

uint64_t fri_word_of(const std::string& path, uint64_t group) {
    return u64_at(path, (group / 63 + 2048) * 512 + group % 63 * 8);
}

uint64_t fri_group_count_of(const std::string& path) {
    return u64_at(path, 72);
}

uint64_t fri_free_count_of(const std::string& path) {
    return u64_at(path, 4100);
}

uint64_t fri_group_head_of(const std::string& path) {
    return u64_at(path, 4108);
}

std::vector<uint8_t> uuid_in(const std::string& path) {
    return file_bytes(path, 20, UUID_SIZE);
}

void make_dat(const std::string& path, uint8_t uuid_byte, uint64_t extents) {
    make_empty_file(path);
    dat_header header{};
    header.head.magic_code = METADATA_MAGIC_CODE;
    memset(header.head.uuid, uuid_byte, UUID_SIZE);
    write_file_bytes(path, 0, &header, sizeof header);
    seal_header_node(path, 0);
    seal_header_node(path, 64);
    const std::vector<uint8_t> extent(1u << 20, 0xd5);
    for (uint64_t i = 0; i < extents; i++) {
        write_file_bytes(path, (i + 1) << 20, extent.data(), extent.size());
    }
}

std::vector<jnl_block> put_mapped_lun(const std::string& root, uint16_t free_count) {
    make_dat(root + "/@EP/EP_DAT_00000", 0x11, 0);
    make_filled_map(root + "/@iSCSITrg/LUN_Extent_1", 63, 1, {{0, 300}});
    set_tbl_word(root + "/@EP/EP_TBL", 300, 0x8001);
    const auto initialised = static_cast<uint16_t>(0x8000 | free_count);
    return {xcopy_block(uuid_of_number(1), 300, 0x8001), tbl_block(uuid_of(0x11), 300, 0x8001),
            fri_block(uuid_of(0x11), 0, 0, initialised)};
}

std::string progress_lines(unsigned first, unsigned last) {
    std::string lines;
    for (unsigned p = first; p <= last; p++) {
        lines += "TARN_INFO: Processing mapping " + std::to_string(p) + "/100\n";
    }
    return lines;
}
