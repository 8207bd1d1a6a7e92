// What the check and the import of a map share: the number of entries to scan, and the progress
// lines. Below: map_file.h, the platform. Above: map_check.h, import.h.
#pragma once

#include <cstdint>

// Asks the platform for the extent shift of the volume `root`. 0, or -1, logged.
int get_extent_shift(const char* root, uint32_t* shift);

// Stores the header's entry count, or mapped count, of the current map. 0; -1, logged, when no map
// is open or the count is all ones.
int map_scan_total(uint64_t* total);
int map_scan_mapped(uint64_t* mapped);

// Prints the lines "Processing mapping <p>/100" of a scan of `total` units, p from 0: unit n prints
// the next line, one at most, if n * 100 / total has reached its p. Nothing overflows.
struct scan_progress {
    uint64_t total;  // 0 only for a scan without units
    uint64_t next;   // p
    uint64_t due;    // first unit that prints it
};
constexpr scan_progress scan_progress_of(uint64_t total) {
    return {total, 0, 0};
}
// The scan has reached the units `from` to `to` - 1.
void scan_progress_pass(scan_progress* progress, uint64_t from, uint64_t to);
void scan_progress_end(const scan_progress* progress);  // prints the line with the p reached
