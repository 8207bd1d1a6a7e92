// What the check and the import of a map share: how many entries a scan looks at, and its progress
// lines. Below: map_file.h, the platform. Above: map_check.h, import.h.
#pragma once

#include <cstdint>

// Asks the platform for the extent shift of the volume `root`. 0, or -1, logged.
int get_extent_shift(const char* root, uint32_t* shift);

// Stores the header's entry count, or mapped count, of the current map. 0; -1, logged, when no map
// is open or the count is all ones.
int map_scan_total(uint64_t* total);
int map_scan_mapped(uint64_t* mapped);

// The lines "Processing mapping <p>/100" of a scan of `total` units, p counting from 0: a unit n
// prints the next one when n * 100 / total has reached it, one line at most. Nothing overflows.
struct scan_progress {
    uint64_t total;  // not 0 where units are passed
    uint64_t next;   // p
    uint64_t due;    // first unit that prints it
};
constexpr scan_progress scan_progress_of(uint64_t total) {
    return {total, 0, 0};
}
// The scan comes to the units `from` to `to` - 1.
void scan_progress_pass(scan_progress* progress, uint64_t from, uint64_t to);
void scan_progress_end(const scan_progress* progress);  // prints the line with the p reached
