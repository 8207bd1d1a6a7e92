// Counting the references of a list of maps, in memory, without a line: over as many scans as the
// counts need, and up to a place in the list. Whatever is unusual about a map is only noted: who
// rebuilds a table then goes through the maps in the documented way, which reports it.
// Below: tbl_ref_counts.h, map_scan.h, the platform. Above: import.h, import_volume.h.
#pragma once

#include <cstdint>

#include "metadata.h"
#include "tbl/tbl_ref_counts.h"
#include "volume/discovery.h"

// One map of the list.
struct counted_map {
    const char* path;    // the caller's
    int32_t kind;        // map_kind_code
    uint64_t count;      // entries that an import looks at; an unmap buffer's may end before
    uint64_t mapped;     // entries that are mapped, as its header says
    uint64_t looked_at;  // entries up to the end that the scan found
};

// A place in the list: the entry `lea` of the map `map`. Everything before it is counted.
struct reference_place {
    size_t map;
    uint64_t lea;
};

struct reference_scan {
    counted_map* maps;
    size_t map_count;
    const char* root;     // of the volume
    reference_place end;  // where counting ends
    ref_counts* counts;
    unsigned scans;  // since the counting began
    bool unusual;    // a map is damaged, has more mapped entries than its header says, or is unread
    bool unread;     // some of it could not be read: the counts lack something
};

// Takes over the maps of the list; their paths are its names, or `only_map` for a list of one.
// False: no memory, or bulk transfers are refused.
bool reference_scan_open(reference_scan* scan, const path_entry* list, const char* only_map,
                         const char* root);
void reference_scan_close(reference_scan* scan);
// Ends the counting at `end`, or at the end of the list, and begins it again.
void reference_scan_restart(reference_scan* scan, reference_place end);
constexpr reference_place REFERENCE_END = {~size_t{0}, 0};

// One scan over the maps, for the next window of the counts. False: there was nothing left to
// count. Ends early, with `unread`, when a stop signal came.
bool reference_scan_next(reference_scan* scan);

// Finds the first entry of the list that refers to `group`, and stores its lea. Returns false if no
// entry that can be read does.
bool find_reference(const reference_scan* scan, uint64_t group, uint64_t* lea);
