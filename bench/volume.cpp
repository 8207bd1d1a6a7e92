// bench-volume ROOT MAPPINGS [--scattered] [--luns N] [--declared N] [--one-in N]: makes a volume
// with 2^20-byte extents whose LUN maps hold MAPPINGS mapped entries in total, with one reference
// to each extent. Table and index get only headers: the rebuild under test fills them.
//   --luns N      maps that the mappings are divided among (16)
//   --declared N  additional entries that the maps' headers declare; they lie in a hole
//   --one-in N    one of every N stretches of a map holds mappings, the others are holes
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
#include "spread.h"
#include "store/crc32c.h"
#include "store/data_node.h"
#include "store/meta_node.h"
#include "tbl/tbl_format.h"

static constexpr uint64_t NODES_A_WRITE = 1024;
static constexpr uint64_t NODES_A_STRETCH = 8;  // a page of the file
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

struct plan {
    std::string root;
    spread mappings;
    uint64_t luns;
    uint64_t declared;
    uint64_t one_in;
};

static data_node filled_node(const spread& mappings, uint64_t first, uint64_t count) {
    data_node node{};
    for (uint64_t slot = 0; slot < count; slot++) {
        const uint64_t word = MAP_MAPPED_BIT | spread_extent(mappings, first + slot);
        memcpy(node.payload + slot * sizeof word, &word, sizeof word);
    }
    data_node_seal(&node);
    return node;
}

// Writes `count` mappings, starting with number `first`, into one of every plan.one_in stretches.
static void write_nodes(int fd, const plan& plan, uint64_t first, uint64_t count) {
    const uint64_t run = plan.one_in == 1 ? NODES_A_WRITE : NODES_A_STRETCH;
    const uint64_t all = map_node_count(count);
    std::vector<data_node> nodes;
    for (uint64_t node = 0; node < all; node += nodes.size()) {
        nodes.resize(std::min(run, all - node));
        for (uint64_t i = 0; i < nodes.size(); i++) {
            const uint64_t done = (node + i) * MAP_NODE_ENTRIES;
            const uint64_t here = std::min(MAP_NODE_ENTRIES, count - done);
            nodes[i] = filled_node(plan.mappings, first + done, here);
        }
        write_all(fd, nodes.data(), nodes.size() * sizeof(data_node),
                  data_node_offset(node * plan.one_in));
    }
}

static void make_map(const plan& plan, uint64_t number) {
    const uint64_t first = plan.mappings.mappings * number / plan.luns;
    const uint64_t count = plan.mappings.mappings * (number + 1) / plan.luns - first;
    const uint64_t entries = count * plan.one_in + plan.declared / plan.luns;
    map_header header{};
    header.map_version = 1;
    header.map_magic_code = METADATA_MAGIC_CODE;
    header.map_type = FILE_TYPE_MAP;
    header.map_uuid[0] = static_cast<uint8_t>(number + 1);
    header.map_uuid[15] = 0x4d;
    header.map_total_count = entries;
    header.map_mapped_count = count;
    header.map_pool_cnt = 1;
    uint32_t checksum = 0;
    tarn_crc32c(POOL_UUID, UUID_SIZE, &checksum);
    header.map_pool_cksum = checksum;
    const int fd = create(plan.root + "/@iSCSITrg/LUN_Extent_" + std::to_string(number),
                          METADATA_DATA_OFFSET + map_node_count(entries) * DATA_NODE_SIZE);
    write_header(fd, &header, MAP_CONST_NODES, MAP_VAR_NODES);
    write_all(fd, POOL_UUID, UUID_SIZE, MAP_POOL_TABLE_OFFSET);
    write_nodes(fd, plan, first, count);
    close(fd);
}

[[noreturn]] static void refuse() {
    fprintf(stderr,
            "usage: bench-volume ROOT MAPPINGS [--scattered] [--luns N] [--declared N] "
            "[--one-in N]\n");
    exit(2);
}

static plan read_plan(int argc, char** argv) {
    if (argc < 3) {
        refuse();
    }
    plan plan = {argv[1], {strtoull(argv[2], nullptr, 10), false}, 16, 0, 1};
    for (int i = 3; i < argc; i++) {
        const std::string option = argv[i];
        if (option == "--scattered") {
            plan.mappings.scattered = true;
            continue;
        }
        uint64_t* number = option == "--luns"       ? &plan.luns
                           : option == "--declared" ? &plan.declared
                           : option == "--one-in"   ? &plan.one_in
                                                    : nullptr;
        if (number == nullptr || i + 1 == argc) {
            refuse();
        }
        *number = strtoull(argv[++i], nullptr, 10);
    }
    if (plan.luns == 0 || plan.one_in == 0) {
        refuse();
    }
    return plan;
}

int main(int argc, char** argv) {
    const plan plan = read_plan(argc, argv);
    for (const char* directory : {"", "/@EP", "/@iSCSITrg", "/@EP_trash", "/@Snapshot"}) {
        mkdir((plan.root + directory).c_str(), 0755);
    }
    make_table(plan.root + "/@EP/EP_TBL");
    make_index(plan.root + "/@EP/EP_FRI");
    make_data_file(plan.root + "/@EP/EP_DAT_00000");
    for (uint64_t number = 0; number < plan.luns; number++) {
        make_map(plan, number);
    }
    return 0;
}
