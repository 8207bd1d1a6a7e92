// `tarnctl export`: the bytes of a LUN, straight from its map and the data files.
// Below: check/look.h, view/lun_reader.h. Above: main.
#pragma once

#include <cstdint>
#include <string>

#include "ctl/output.h"

struct export_request {
    std::string lun;            // its name, or the path of its map
    std::string to;             // file, or "-" for standard output
    uint64_t offset = 0;        // bytes, of the LUN
    uint64_t length = 0;        // bytes; 0: to its end
    bool missing_zero = false;  // what cannot be read becomes zeros
    bool force = false;         // replace the file
    bool inconsistent = false;  // although the service runs
};

int run_export(const export_request& request, const output_style& style);
