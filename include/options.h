// The option record: the sub-options of this run. One record per process, zero at start. Only the
// command line reads and writes it; procedures get what they work on as arguments.
#pragma once

#include <cstdint>

#include "metadata.h"
#include "volume_layout.h"

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

extern option_record opt_ctx;
