// The entries of one group for a procedure that changes none: from an image of the group, entry by
// entry where it cannot be had, which tells why. Below: tbl_group_image.h, tbl_entries.h. Above:
// the check and the listing of free lists.
#pragma once

#include "tbl/tbl_entries.h"
#include "tbl/tbl_group_image.h"

struct tbl_group_reader {
    bool loaded;
    tbl_group_image image;
};

inline void tbl_group_reader_open(tbl_group_reader* reader, uint64_t group) {
    reader->loaded = tbl_group_load(current_tbl.fd, &reader->image, group);
}

// `lpa`: of that group. As tbl_entry_read: negative when it cannot be read, logged there.
inline int tbl_group_reader_get(const tbl_group_reader* reader, tbl_entry* entry, uint64_t lpa) {
    if (!reader->loaded) {
        return tbl_entry_read(entry, lpa);
    }
    *entry = tbl_group_get(&reader->image, tbl_offset_in_group(lpa));
    return sizeof *entry;
}
