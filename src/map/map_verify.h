// Verification and repair of the current map's data nodes. Below: map_file.h, node_cache.h.
#pragma once

#include <cstdint>

// 0 valid or unchecked, 1 checksum mismatch, negative on failure; all logged.
int tarn_map_data_node_check(uint64_t node_num);
// The same; a mismatched node is blanked, every entry of it lost, and told on standard output: 1.
int tarn_map_data_node_check_and_repair(uint64_t node_num);
