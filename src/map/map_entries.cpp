#include "map/map_entries.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "map/map_file.h"
#include "platform.h"
#include "print.h"
#include "store/descriptor.h"
#include "store/file.h"
#include "store/keep_journal.h"

int map_entry_read(map_entry* entry, uint64_t lea) {
    if (current_map.fd == 0) {
        log_err("map file descriptor is invalid\n");
        return -1;
    }
    *entry = {};
    return tarn_cache_node_read(&current_map.cache, current_map.fd, entry, map_node_of(lea),
                                map_byte_in_node(lea), sizeof *entry);
}

int tarn_get_mapped_lpa(uint64_t lea, uint64_t* lpa) {
    map_entry entry{};
    if (map_entry_read(&entry, lea) < 0) {
        return -1;  // logged there
    }
    if (lpa != nullptr) {
        *lpa = map_entry_get_lpa(&entry);
    }
    return map_entry_is_mapped(&entry);
}

// The number of entries that the extent size of its volume gives the current map, if it is a
// volume's ROD map; else 0. Also 0 if the extent size is unknown: the caller logs the refused lea.
static uint64_t rod_entries() {
    static constexpr char inside[] = "/@EP/EP_ROD";
    const size_t length = strlen(current_map.path);
    if (length < sizeof inside - 1) {
        return 0;
    }
    char root[PATH_TEXT_SIZE];
    const size_t root_length = length - (sizeof inside - 1);
    memcpy(root, current_map.path, root_length);
    root[root_length] = '\0';
    uint32_t size = 0;
    uint32_t shift = 0;
    if (strcmp(current_map.path + root_length, inside) != 0 ||
        ORBAiSCSIVAAIExtentSizeAndShiftGet(root, &size, &shift) < 0) {
        return 0;
    }
    return rod_entry_count(shift);
}

// Whether the map's count, its file's size or, for a ROD map, the volume's extent size covers
// `lea`: the ROD map has more entries than its header says, and a sparse file may be shorter than
// its count.
static bool file_holds(uint64_t lea) {
    if (lea < current_map.header.map_total_count) {
        return true;
    }
    const auto size = static_cast<uint64_t>(std::max<int64_t>(io_size(current_map.fd), 0));
    return data_node_offset(map_node_of(lea)) + DATA_NODE_SIZE <= size || lea < rod_entries();
}

// Reads the node's checksums again: the cache does not keep them.
static void note_damaged_node(uint64_t node_num) {
    data_node node{};
    node_mismatch found{};
    if (read_fd(current_map.fd, &node, data_node_offset(node_num), sizeof node) >= 0) {
        found = mismatch_of(&node);
    }
    const uint64_t first = node_num * MAP_NODE_ENTRIES;
    log_keep_as("map_entry_replay", keep_reason::damage,
                "%s: node %llu, lea %llu to %llu, is damaged and gets a fresh checksum: "
                "on-disk(%08x) != (%08x)\n",
                current_map.path, ull(node_num), ull(first), ull(first + MAP_NODE_ENTRIES - 1),
                found.stored, found.computed);
}

enum class damaged_node { overwritten, noted };

static int write_entry(const map_entry* entry, uint64_t lea, damaged_node damaged) {
    constexpr const char* name = "map_entry_write";
    node_cache* cache = &current_map.cache;
    const uint64_t node_num = map_node_of(lea);
    if (current_map.fd == 0) {
        log_keep_as(name, keep_reason::failed_write, "map file descriptor is invalid\n");
        return -1;
    }
    if (!file_holds(lea)) {
        log_keep_as(name, keep_reason::failed_write, "no entry in this map, lea %llu\n", ull(lea));
        return -1;
    }
    if (damaged == damaged_node::noted) {
        const int loaded = tarn_cache_node_load(cache, current_map.fd, node_num);
        if (loaded < 0) {
            return loaded;  // logged there
        }
        if (loaded == 1) {
            note_damaged_node(node_num);
        }
    }
    return tarn_cache_node_write(cache, current_map.fd, entry, node_num, map_byte_in_node(lea),
                                 sizeof *entry);
}

int map_entry_write(const map_entry* entry, uint64_t lea) {
    return write_entry(entry, lea, damaged_node::overwritten);
}

int map_entry_check(const map_entry* entry, uint64_t lea) {
    map_entry stored{};
    if (map_entry_read(&stored, lea) < 0) {
        log_err("map entry check fail, lea %llu\n", ull(lea));
        return -1;
    }
    return stored.word == entry->word ? 1 : 0;
}

int map_entry_replay(const map_entry* entry, uint64_t lea) {
    if (write_entry(entry, lea, damaged_node::noted) < 0) {
        log_err("map entry replay fail, lea %llu\n", ull(lea));
        return -1;
    }
    return 0;
}

int map_count_check(uint64_t count) {
    return count == current_map.header.map_mapped_count ? 1 : 0;
}

int map_count_replay(uint64_t count) {
    current_map.header.map_mapped_count = count;
    return save_map();
}

void show_map_entry(const map_entry* entry) {
    if (entry == nullptr) {
        log_err("NULL pointer of map\n");
        return;
    }
    printf("TARN_INFO: poolnum[%u] mapped[%d] sync[%d] lpa %llu\n", map_entry_get_poolnum(entry),
           map_entry_is_mapped(entry), map_entry_is_sync(entry), ull(map_entry_get_lpa(entry)));
}

int dump_map_entry(uint64_t lea) {
    map_entry entry{};
    if (map_entry_read(&entry, lea) < 0) {
        return -1;  // logged there
    }
    printf("TARN_INFO: LEA [%llu] MAP-Entry:\n", ull(lea));
    show_map_entry(&entry);
    return 0;
}
