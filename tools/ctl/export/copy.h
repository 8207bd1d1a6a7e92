// Copies bytes of a LUN into a file or a pipe. Below: lun_reader.h, the overlay. Above: export.cpp.
#pragma once

#include <cstdint>
#include <string>

#include "ctl/export/totals.h"

struct copy_order {
    lun_reader* reader;
    uint64_t offset;  // of the LUN
    uint64_t length;
    bool missing_zero;  // what cannot be read becomes zeros
    bool progress;      // shown on standard error
    std::string what;   // the name in that line; escaped
};

// Where the bytes go, from the first one on.
struct copy_target {
    int fd;
    bool sparse;  // a new file of its final length, in which holes are left out; else all are
                  // written
};

enum class copy_end {
    done,
    missing,       // something cannot be read, and that was not allowed
    write_failed,  // errno says why
};

// Looks at every stretch, and reads no data.
void survey(const copy_order& order, export_totals* totals);
copy_end copy_lun(const copy_order& order, const copy_target& target, export_totals* totals);
