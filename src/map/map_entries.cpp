#include "map/map_entries.h"

#include <algorithm>
#include <cstdio>

#include "map/map_file.h"
#include "print.h"
#include "store/descriptor.h"
#include "store/log.h"

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

// Whether the map's count or its file's size reaches `lea`: the ROD map has more entries than its
// header says, and a sparse file may be shorter than its count.
static bool file_holds(uint64_t lea) {
    if (lea < current_map.header.map_total_count) {
        return true;
    }
    const auto size = static_cast<uint64_t>(std::max<int64_t>(io_size(current_map.fd), 0));
    return data_node_offset(map_node_of(lea)) + DATA_NODE_SIZE <= size;
}

int map_entry_write(const map_entry* entry, uint64_t lea) {
    if (current_map.fd == 0) {
        log_err("map file descriptor is invalid\n");
        io_count_failed_write();
        return -1;
    }
    if (!file_holds(lea)) {
        log_err("no entry in this map, lea %llu\n", ull(lea));
        io_count_failed_write();
        return -1;
    }
    return tarn_cache_node_write(&current_map.cache, current_map.fd, entry, map_node_of(lea),
                                 map_byte_in_node(lea), sizeof *entry);
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
    if (map_entry_write(entry, lea) < 0) {
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
