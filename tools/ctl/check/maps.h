// The scan over a volume's maps. Below: map_scan.h, tbl_ref_counts.h. Above: the check of a volume.
#pragma once

#include "ctl/check/state.h"

// Entries that the file has room for.
uint64_t map_entries_of_file(const header_view& view);

// Whether the file ends before its last entry, and lost some: it counts more mapped ones than the
// `mapped` that were found.
bool is_cut_short(const map_check& map, uint64_t mapped);

// Reads a node that a scan could not show, up to three times, since a running service may be
// writing it. Returns 0 and whether its checksum is wrong; errno when it cannot be read.
int read_node_alone(int fd, uint64_t number, data_node* node, bool* damaged);

// Blocks of the map that a scan looks at; 0 if it is not readable.
uint64_t scan_blocks(const map_check& map);
// Plans one scan of all maps of a volume; a null line is ignored.
void plan_map_scan(const volume_check& volume, progress_line* progress);

// Scans every map once and counts its references. The first scan also reports what is wrong with
// the maps, and notes whether all of them were read to their end.
void scan_maps(check_state* state, volume_check* volume, ref_counts* counts, bool first_scan);
