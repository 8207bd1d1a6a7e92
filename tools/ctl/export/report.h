// What an export says of itself. Below: totals.h. Above: export.cpp.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "ctl/check/state.h"
#include "ctl/export/totals.h"

struct export_report {
    const volume_check* volume = nullptr;
    const map_check* map = nullptr;
    check_mode mode = check_mode::as_found;
    uint64_t lun_bytes = 0;
    uint64_t offset = 0;  // of the LUN
    uint64_t length = 0;
    std::string to;  // file; empty: standard output, or nothing was exported
    std::string map_file;
    export_totals totals;
    std::vector<std::string> warnings;  // whole sentences
    ctl_exit status = EXIT_CLEAN;
    double seconds = 0;
};

// Either returns false if it cannot be written.
bool print_export_text(FILE* out, const export_report& report, bool quiet);
bool print_export_json(FILE* out, const export_report& report, bool quiet);
