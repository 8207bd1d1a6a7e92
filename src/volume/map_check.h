// The check of one map: its data nodes' checksums and its mapped count, and their repair.
// Below: map_scan.h, map_walk.h. Above: the commands, import.h, one_key.h.
#pragma once

#include <cstdint>

#include "volume/volume_paths.h"

// Scans the current map, one of map_kind_code, of the volume `root`; an unmap buffer's scan ends at
// its first unmapped entry. With `repair` a node whose checksum does not match is blanked, and the
// mapped count becomes the number of entries found. Both are printed. Returns 0 when the scan
// finished, matching or not; negative on a failure, logged. If an entry cannot be read, the result
// is that of its node, deliberate: 0, or 1 for a checksum mismatch.
int do_check_map(int32_t kind, int32_t repair, const char* root);

// --check-map: the map at paths->map. 0, or negative, logged; the map is closed.
int check_map(const volume_paths* paths, int32_t kind, int32_t repair);
