// A LUN map as a file: the one current map of the process, its header and counts, and a new map
// made from an old one. Below: header_file.h, node cache. Above: the map's entries and handles, the
// commands.
#pragma once

#include "map/map_format.h"
#include "store/header_file.h"
#include "store/node_cache.h"

inline constexpr header_kind MAP_KIND = {"map", MAP_CONST_NODES, MAP_VAR_NODES};

// The current map. fd 0: none is open. Its pool table is not read.
struct map_file {
    int fd;
    map_header header;
    node_cache cache;
    char path[PATH_TEXT_SIZE];  // as it was opened, cut to fit
};
extern map_file current_map;

constexpr uint64_t NO_MAP_COUNT = ~uint64_t{0};  // what the counts return if no map is open

constexpr const char* MAP_LOAD_FAILED = "Fail to load MAP";  // in messages, before the path

// All return 0, or -1, logged, unless said otherwise.

// Opens `path` as the current map; a wrong magic code is only logged, deliberate. An open one is
// not closed first. After a failure the descriptor that was opened stays set: the caller closes.
int load_map(const char* path);
void close_map();                    // syncs and closes; nothing to do when none is open
int save_map();                      // writes the five header nodes, nothing else
uint64_t tarn_map_lea_total_cnt();   // entries of the LUN, or NO_MAP_COUNT, logged
uint64_t tarn_map_lea_mapped_cnt();  // mapped entries as the header says, or NO_MAP_COUNT, logged
// Loads the map at `path` and stores its mapped count; the map stays open for the caller to close.
int get_map_count(const char* path, uint64_t* out);
// Creates `newpath` with the size, header (counts included) and pool table of the map at `oldpath`
// and no mapped entry. Uses the current map.
int create_map(const char* newpath, const char* oldpath);
// Copies `pool_count` rows between two open maps and stores their checksum.
int clone_map_pool_table(int new_fd, int old_fd, uint32_t pool_count, uint32_t* checksum);
int dump_map_meta();  // prints the current header
