// Mapped extents that are holes of their data file: never written, or punched. Below: the seam,
// dat_file.h. Above: the groups of a volume.
#pragma once

#include "ctl/check/state.h"

// The data file in hand, and where its next bytes are.
struct hole_look {
    uint64_t number = ~uint64_t{0};
    int fd = 0;
    uint64_t size = 0;        // bytes
    uint64_t data_begin = 0;  // the stretch of data that was found last
    uint64_t data_end = 0;
};

// Whether the whole extent is a hole. Extents come in ascending order, mostly. False for an extent
// of a file that cannot be opened.
bool is_data_hole(const volume_check* volume, hole_look* look, uint64_t lpa);
void close_hole_look(hole_look* look);
