// The walk along the free list of one group, and how it ended: pure, over the group's words.
// Below: tbl_format.h. Above: the check of a table.
#pragma once

#include "tbl/tbl_format.h"

enum class list_end {
    tail,     // as it should
    used,     // the next extent is in use
    loop,     // the next extent was passed already
    no_tail,  // every free extent was passed, and the last one is not marked as the tail
};

struct free_list_walk {
    list_end end;
    uint32_t length;  // extents passed
    uint32_t at;      // offset of the last one; of the head, if that is in use
};

// Walks from offset `head`. `words` are the 4096 entries of the group, `free_extents` of which are
// free.
inline free_list_walk walk_free_list(const uint16_t* words, uint32_t head, uint32_t free_extents) {
    uint64_t passed[TBL_GROUP_ENTRIES / 64] = {};
    uint32_t length = 0;
    uint32_t at = head % TBL_GROUP_ENTRIES;
    if ((words[at] & TBL_USED_BIT) != 0) {
        return {list_end::used, 0, at};
    }
    for (;;) {
        passed[at / 64] |= uint64_t{1} << at % 64;
        length++;
        if ((words[at] & TBL_TAIL_BIT) != 0) {
            return {list_end::tail, length, at};
        }
        if (length == free_extents) {
            return {list_end::no_tail, length, at};
        }
        const uint32_t next = words[at] & TBL_COUNT_MASK;
        if ((words[next] & TBL_USED_BIT) != 0) {
            return {list_end::used, length, at};
        }
        if ((passed[next / 64] >> next % 64 & 1) != 0) {
            return {list_end::loop, length, at};
        }
        at = next;
    }
}
