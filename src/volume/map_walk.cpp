#include "volume/map_walk.h"

#include <algorithm>
#include <cstdio>

#include "map/map_file.h"
#include "platform.h"
#include "print.h"
#include "store/log.h"

int get_extent_shift(const char* root, uint32_t* shift) {
    uint32_t size = ~uint32_t{0};
    *shift = ~uint32_t{0};
    if (ORBAiSCSIVAAIExtentSizeAndShiftGet(root, &size, shift) < 0) {
        log_err("Fail to get extent size of %s\n", root);
        return -1;
    }
    return 0;
}

static int usable_count(uint64_t count) {
    if (count == NO_MAP_COUNT) {
        log_err("no map is open, or its count is all ones\n");
        return -1;
    }
    return 0;
}

int map_scan_total(uint64_t* total) {
    *total = tarn_map_lea_total_cnt();
    return usable_count(*total);
}

int map_scan_mapped(uint64_t* mapped) {
    *mapped = tarn_map_lea_mapped_cnt();
    return usable_count(*mapped);
}

// The first unit n of which n * 100 / total is `percent` (0..100).
static uint64_t first_unit_of(uint64_t percent, uint64_t total) {
    return percent * (total / 100) + (percent * (total % 100) + 99) / 100;
}

void scan_progress_pass(scan_progress* progress, uint64_t from, uint64_t to) {
    for (uint64_t unit = std::max(from, progress->due); unit < to;
         unit = std::max(unit + 1, progress->due)) {
        scan_progress_end(progress);
        progress->next++;
        progress->due = first_unit_of(progress->next, progress->total);
    }
}

void scan_progress_end(const scan_progress* progress) {
    printf("TARN_INFO: Processing mapping %llu/100\n", ull(progress->next));
}
