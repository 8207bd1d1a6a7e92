// The option record: what the sub-options of one run said. One record for the process, zero at
// start. Written by the sub-option scan and by the procedures that walk volumes; read by all.
#pragma once

#include <cstdint>

#include "metadata.h"

struct option_record {
    char volpath[PATH_TEXT_SIZE];  // volume root, "/volume<N>"
    char fripath[PATH_TEXT_SIZE];
    char tblpath[PATH_TEXT_SIZE];
    char jnlpath[PATH_TEXT_SIZE];
    char mappath[PATH_TEXT_SIZE];
    uint8_t uuid[UUID_SIZE];  // for --change-uuid
    const char* path;         // the argument itself; null when not given
    const char* oldpath;      // the argument itself; null when not given
    int32_t repair;           // 0 or 1
    int32_t map_kind;         // one of map_kind_code
};

enum map_kind_code : int32_t {
    MAP_KIND_LUN = 0,
    MAP_KIND_UNMAP_BUFFER = 1,
    MAP_KIND_ROD = 2,
};

extern option_record opt_ctx;

// Reads the options that stand behind the command into opt_ctx, from where the previous scan
// stopped; a scan after the last one finds nothing. Unknown options are passed over (the scanner
// prints its own line). Returns 0; -1 for a uuid that is none or for words left over, both told on
// standard output. Defined with the command line, in src/cli/sub_options.cpp.
int parse_sub_options(int argc, char** argv);
