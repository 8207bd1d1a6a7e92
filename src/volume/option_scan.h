// The options after the command, for the procedures that read them in the middle of their work.
// Only the command line knows how they are read and where they are stored. Below: volume_paths.h.
// Above: the procedures that replay, the consistency check, start-up replay.
#pragma once

#include <cstdint>

#include "volume/volume_paths.h"

struct option_scan {
    int argc;
    char** argv;
    // Reads what the previous scan left; a scan after the last one finds nothing. The paths in the
    // options replace those in `paths`, even if the scan fails. 0; -1 for an invalid uuid or
    // leftover arguments, reported on standard output.
    int (*read)(option_scan* scan, volume_paths* paths);
    int32_t repair;  // 1: a scan has found --repair
};
