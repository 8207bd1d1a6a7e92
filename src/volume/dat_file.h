// Data files: the header that names their volume, and where an extent lies in them.
// Below: meta nodes, file primitives. Above: reconstruct.h, hole_punching.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "metadata.h"
#include "volume_layout.h"

constexpr int DAT_CONST_NODES = 2;
constexpr int DAT_VAR_NODES = 0;

// The two constant nodes, as they lie on disk and in memory.
struct [[gnu::packed]] dat_header {
    metadata_head head;    //  0: the uuid is the volume's
    uint32_t checksum1;    // 64
    uint8_t reserved[60];  // 68
};
static_assert(offsetof(dat_header, checksum1) == META_NODE_SIZE);
static_assert(sizeof(dat_header) == (DAT_CONST_NODES + DAT_VAR_NODES) * META_NODE_SIZE);

struct dat_handle {
    int32_t fd;  // 0: closed
    char name[PATH_TEXT_SIZE];
    dat_header header;
    uint8_t* buffer;  // released on close; usually null
};

// The caller has zeroed `handle`. 0; -1, logged, even for a wrong magic code: nothing is open then.
int load_dat_handle(dat_handle* handle, const char* path);
int close_dat_handle(dat_handle* handle);  // syncs and closes. 0; -1 for null, logged

constexpr int DAT_FILE_MAX = 4096;  // files of a volume that are opened

// Writes the path of data file `number` of the volume `root` into `out` (PATH_TEXT_SIZE). 0; -1,
// logged, when it does not fit.
int dat_file_path(char* out, const char* root, unsigned number);
