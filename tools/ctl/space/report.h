// What `tarnctl space` found out, and the ways to print it. Below: volume_space.h. Above:
// space.cpp.
#pragma once

#include <cstdio>

#include "ctl/check/check.h"
#include "ctl/space/space.h"
#include "ctl/space/volume_space.h"

struct space_report {
    check_report opening;                // server, journal, mode
    std::vector<volume_space> volumes;   // their maps in the order that was asked for
    std::vector<std::string> to_delete;  // names, as they were given
    std::vector<std::string> doubts;     // sentences: why a figure is not exact, or missing
    std::vector<std::string> notes;      // sentences that change no figure
    double seconds = 0;
};

// Sentences about one volume, for `doubts` and `notes`.
std::vector<std::string> doubts_of(const volume_space& space);
std::vector<std::string> notes_of(const volume_space& space);

// "1.8 GiB", or "1843 extents" if their size is unknown.
std::string extents_words(uint64_t extents, uint64_t extent_size);

inline ctl_exit exit_of(const space_report& report) {
    return report.doubts.empty() ? EXIT_CLEAN : EXIT_INCOMPLETE;
}

// False: not everything could be written, errno says why.
bool print_space_text(FILE* out, const space_report& report, bool quiet);
bool print_space_json(FILE* out, const space_report& report, bool quiet);
