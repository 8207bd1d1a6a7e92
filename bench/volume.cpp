// bench-volume ROOT MAPPINGS sequential|scattered [DECLARED]: a volume of 2^20-byte extents whose
// LUN maps hold MAPPINGS mapped entries in all, over 16 LUNs, each extent referred to once. Table
// and index get headers only: the rebuild under test fills them. DECLARED: entries that the maps'
// headers claim beyond those, in a hole.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "fri/fri_format.h"
#include "map/map_format.h"
#include "store/crc32c.h"
#include "store/data_node.h"
#include "store/meta_node.h"
#include "tbl/tbl_format.h"

static constexpr uint64_t LUNS = 16;
static constexpr uint64_t NODES_A_WRITE = 1024;
static const uint8_t POOL_UUID[UUID_SIZE] = {0x7a, 0x52, 0x11, 0x04};

[[noreturn]] static void give_up(const std::string& what) {
    perror(what.c_str());
    exit(1);
}

static int create(const std::string& path, uint64_t size) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
        give_up(path);
    }
    return fd;
}

static void write_all(int fd, const void* bytes, size_t len, uint64_t offset) {
    if (pwrite(fd, bytes, len, static_cast<off_t>(offset)) != static_cast<ssize_t>(len)) {
        give_up("write");
    }
}

static void write_header(int fd, void* header, uint64_t const_nodes, uint64_t var_nodes) {
    auto* node = static_cast<meta_node*>(header);
    for (uint64_t i = 0; i < const_nodes + var_nodes; i++, node++) {
        node->checksum = 0;
        uint32_t checksum = 0;
        tarn_crc32c(node, sizeof *node, &checksum);
        node->checksum = checksum;
        const uint64_t index = i < const_nodes ? i : META_VAR_NODE_BASE + i - const_nodes;
        write_all(fd, node, sizeof *node, index * META_NODE_SIZE);
    }
}

static void make_table(const std::string& path) {
    tbl_header header{};
    header.tbl_version = TBL_VERSION;
    header.tbl_magic_code = METADATA_MAGIC_CODE;
    header.tbl_type = FILE_TYPE_TBL;
    memcpy(header.tbl_uuid, POOL_UUID, UUID_SIZE);
    header.tbl_data_offset = METADATA_DATA_OFFSET;
    header.tbl_extent_size = 1u << 20;
    header.tbl_entry_size = sizeof(tbl_entry);
    header.tbl_total_count = TBL_TOTAL_COUNT;
    const int fd = create(path, TBL_FILE_SIZE);
    write_header(fd, &header, TBL_CONST_NODES, TBL_VAR_NODES);
    close(fd);
}

static void make_index(const std::string& path) {
    fri_header header{};
    header.fri_version = FRI_VERSION;
    header.fri_magic_code = METADATA_MAGIC_CODE;
    header.fri_type = FILE_TYPE_FRI;
    memcpy(header.fri_uuid, POOL_UUID, UUID_SIZE);
    header.fri_data_offset = METADATA_DATA_OFFSET;
    header.fri_entry_size = sizeof(fri_entry);
    header.fri_free_count = FRI_NEW_FREE_COUNT;
    const int fd = create(path, FRI_FILE_SIZE);
    write_header(fd, &header, FRI_CONST_NODES, FRI_VAR_NODES);
    close(fd);
}

static void make_data_file(const std::string& path) {
    struct {
        metadata_head head;
        meta_node second;
    } header{};
    header.head.magic_code = METADATA_MAGIC_CODE;
    memcpy(header.head.uuid, POOL_UUID, UUID_SIZE);
    const int fd = create(path, METADATA_DATA_OFFSET);
    write_header(fd, &header, 2, 0);
    close(fd);
}

// A permutation of 0 .. 2^bits - 1: four rounds of mixing the two halves of the number.
static uint64_t permuted(uint64_t x, unsigned bits) {
    const unsigned low_bits = bits / 2;
    const uint64_t low_mask = (uint64_t{1} << low_bits) - 1;
    const uint64_t high_mask = (uint64_t{1} << (bits - low_bits)) - 1;
    uint64_t low = x & low_mask;
    uint64_t high = x >> low_bits;
    for (uint64_t round = 1; round <= 4; round++) {
        high ^= ((low + round) * 0x9E3779B97F4A7C15 >> 20) & high_mask;
        low ^= ((high + round) * 0xC2B2AE3D27D4EB4F >> 20) & low_mask;
    }
    return high << low_bits | low;
}

struct layout {
    uint64_t mappings;
    bool scattered;
    unsigned bits;  // 2^bits is the first power of two not below `mappings`
};

// The extent of mapping `i`: the next one, or anywhere.
static uint64_t extent_of(const layout& layout, uint64_t i) {
    if (!layout.scattered) {
        return i;
    }
    uint64_t x = permuted(i, layout.bits);
    while (x >= layout.mappings) {  // stays a permutation of 0 .. mappings - 1
        x = permuted(x, layout.bits);
    }
    return x;
}

static data_node filled_node(const layout& layout, uint64_t first, uint64_t count) {
    data_node node{};
    for (uint64_t slot = 0; slot < count; slot++) {
        const uint64_t word = MAP_MAPPED_BIT | extent_of(layout, first + slot);
        memcpy(node.payload + slot * sizeof word, &word, sizeof word);
    }
    data_node_seal(&node);
    return node;
}

static void write_nodes(int fd, const layout& layout, uint64_t first, uint64_t count) {
    std::vector<data_node> nodes;
    for (uint64_t node = 0; node < map_node_count(count); node += nodes.size()) {
        nodes.resize(std::min(NODES_A_WRITE, map_node_count(count) - node));
        for (uint64_t i = 0; i < nodes.size(); i++) {
            const uint64_t lea = (node + i) * MAP_NODE_ENTRIES;
            nodes[i] = filled_node(layout, first + lea, std::min(MAP_NODE_ENTRIES, count - lea));
        }
        write_all(fd, nodes.data(), nodes.size() * sizeof(data_node), data_node_offset(node));
    }
}

static void make_map(const std::string& path, uint64_t number, const layout& layout,
                     uint64_t declared) {
    const uint64_t first = layout.mappings * number / LUNS;
    const uint64_t count = layout.mappings * (number + 1) / LUNS - first;
    map_header header{};
    header.map_version = 1;
    header.map_magic_code = METADATA_MAGIC_CODE;
    header.map_type = FILE_TYPE_MAP;
    header.map_uuid[0] = static_cast<uint8_t>(number + 1);
    header.map_uuid[15] = 0x4d;
    header.map_total_count = count + declared;
    header.map_mapped_count = count;
    header.map_pool_cnt = 1;
    uint32_t checksum = 0;
    tarn_crc32c(POOL_UUID, UUID_SIZE, &checksum);
    header.map_pool_cksum = checksum;
    const int fd =
        create(path, METADATA_DATA_OFFSET + map_node_count(count + declared) * DATA_NODE_SIZE);
    write_header(fd, &header, MAP_CONST_NODES, MAP_VAR_NODES);
    write_all(fd, POOL_UUID, UUID_SIZE, MAP_POOL_TABLE_OFFSET);
    write_nodes(fd, layout, first, count);
    close(fd);
}

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: bench-volume ROOT MAPPINGS sequential|scattered [DECLARED]\n");
        return 2;
    }
    const std::string root = argv[1];
    layout layout = {strtoull(argv[2], nullptr, 10), strcmp(argv[3], "scattered") == 0, 1};
    while (uint64_t{1} << layout.bits < layout.mappings) {
        layout.bits++;
    }
    const uint64_t declared = argc > 4 ? strtoull(argv[4], nullptr, 10) / LUNS : 0;
    for (const char* directory : {"", "/@EP", "/@iSCSITrg", "/@EP_trash", "/@Snapshot"}) {
        mkdir((root + directory).c_str(), 0755);
    }
    make_table(root + "/@EP/EP_TBL");
    make_index(root + "/@EP/EP_FRI");
    make_data_file(root + "/@EP/EP_DAT_00000");
    for (uint64_t lun = 0; lun < LUNS; lun++) {
        make_map(root + "/@iSCSITrg/LUN_Extent_" + std::to_string(lun), lun, layout, declared);
    }
    return 0;
}
