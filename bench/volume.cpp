// bench-volume ROOT MAPPINGS [--scattered] [--luns N] [--declared N] [--one-in N]: makes a volume
// with 2^20-byte extents whose LUN maps hold MAPPINGS mapped entries in total, with one reference
// to each extent. Table and index get only headers: the rebuild under test fills them.
//   --luns N      maps that the mappings are divided among (16)
//   --declared N  additional entries that the maps' headers declare; they lie in a hole
//   --hot N       300 references more to one extent in each of the first N groups, in one more map
//   --everywhere  the extents are chosen from all that a table can have
//   --one-in N    one of every N stretches of a map holds mappings, the others are holes
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "files.h"
#include "fri/fri_format.h"
#include "map/map_format.h"
#include "spread.h"
#include "store/data_node.h"
#include "store/meta_node.h"
#include "tbl/tbl_format.h"

static constexpr uint64_t NODES_A_WRITE = 1024;
static constexpr uint64_t NODES_A_STRETCH = 8;  // a page of the file
static constexpr uint64_t HOT_REFERENCES = 300;

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

constexpr uint64_t DATA_FILES_MAX = 4096;

static void make_data_file(const std::string& path, uint64_t size) {
    struct {
        metadata_head head;
        meta_node second;
    } header{};
    header.head.magic_code = METADATA_MAGIC_CODE;
    memcpy(header.head.uuid, POOL_UUID, UUID_SIZE);
    const int fd = create(path, size);
    write_header(fd, &header, 2, 0);
    close(fd);
}

// Sparse: room for `extents` extents of one mebibyte, which are never written.
static void make_data_files(const std::string& root, uint64_t extents) {
    constexpr uint64_t EXTENTS_OF_FILE = uint64_t{1} << 22;
    uint64_t number = 0;
    do {
        const uint64_t here = std::min(extents, EXTENTS_OF_FILE);
        char name[32];
        snprintf(name, sizeof name, "/@EP/EP_DAT_%05llu", static_cast<unsigned long long>(number));
        make_data_file(root + name, METADATA_DATA_OFFSET + (here << 20));
        extents -= here;
        number++;
    } while (extents > 0 && number < DATA_FILES_MAX);
}

struct plan {
    std::string root;
    spread mappings;
    uint64_t luns;
    uint64_t declared;
    uint64_t one_in;
    uint64_t hot;
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

static std::string map_path(const plan& plan, uint64_t number) {
    return plan.root + "/@iSCSITrg/LUN_Extent_" + std::to_string(number);
}

static int create_numbered_map(const plan& plan, uint64_t number, uint64_t entries,
                               uint64_t mapped) {
    uint8_t uuid[UUID_SIZE] = {static_cast<uint8_t>(number + 1)};
    uuid[UUID_SIZE - 1] = 0x4d;
    return create_map(map_path(plan, number), uuid, entries, mapped);
}

static void make_map(const plan& plan, uint64_t number) {
    const uint64_t first = plan.mappings.mappings * number / plan.luns;
    const uint64_t count = plan.mappings.mappings * (number + 1) / plan.luns - first;
    const uint64_t entries = count * plan.one_in + plan.declared / plan.luns;
    const int fd = create_numbered_map(plan, number, entries, count);
    write_nodes(fd, plan, first, count);
    close(fd);
}

// One more map, which maps one extent in each of plan.hot groups HOT_REFERENCES times.
static void make_hot_map(const plan& plan) {
    const uint64_t entries = plan.hot * HOT_REFERENCES;
    const int fd = create_numbered_map(plan, plan.luns, entries, entries);
    std::vector<data_node> nodes(map_node_count(entries));
    for (uint64_t i = 0; i < entries; i++) {
        const uint64_t group = i / HOT_REFERENCES;
        const uint64_t word =
            MAP_MAPPED_BIT | (group * TBL_GROUP_ENTRIES + group % TBL_GROUP_ENTRIES);
        memcpy(nodes[map_node_of(i)].payload + map_byte_in_node(i), &word, sizeof word);
    }
    for (data_node& node : nodes) {
        data_node_seal(&node);
    }
    write_all(fd, nodes.data(), nodes.size() * sizeof(data_node), METADATA_DATA_OFFSET);
    close(fd);
}

[[noreturn]] static void refuse() {
    fprintf(stderr,
            "usage: bench-volume ROOT MAPPINGS [--scattered | --everywhere] [--luns N] "
            "[--declared N] [--hot N] [--one-in N]\n");
    exit(2);
}

static plan read_plan(int argc, char** argv) {
    if (argc < 3) {
        refuse();
    }
    plan plan = {argv[1], {strtoull(argv[2], nullptr, 10), 0}, 16, 0, 1, 0};
    for (int i = 3; i < argc; i++) {
        const std::string option = argv[i];
        if (option == "--scattered" || option == "--everywhere") {
            plan.mappings = option == "--scattered"
                                ? scattered(plan.mappings.mappings)
                                : spread{plan.mappings.mappings, TBL_TOTAL_COUNT};
            continue;
        }
        uint64_t* number = option == "--luns"       ? &plan.luns
                           : option == "--declared" ? &plan.declared
                           : option == "--hot"      ? &plan.hot
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
    make_data_files(plan.root,
                    plan.mappings.among == 0 ? plan.mappings.mappings : plan.mappings.among);
    for (uint64_t number = 0; number < plan.luns; number++) {
        make_map(plan, number);
    }
    if (plan.hot != 0) {
        make_hot_map(plan);
    }
    return 0;
}
