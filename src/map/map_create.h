// A new map made from an old one. Below: map_file.h, map_handle.h's pool rules.
#pragma once

#include <cstdint>

// Creates `newpath` with the size, header (counts included) and pool table of the map at `oldpath`
// and no mapped entry. Uses the current map. 0, or -1, logged.
int create_map(const char* newpath, const char* oldpath);
// Copies `pool_count` rows between two open maps and stores their checksum. 0, or -1, logged.
int clone_map_pool_table(int new_fd, int old_fd, uint32_t pool_count, uint32_t* checksum);
