#include "tbl/tbl_freelist.h"

#include <bit>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "print.h"
#include "store/keep_journal.h"
#include "tbl/tbl_entries.h"
#include "tbl/tbl_group_image.h"

// A free entry of the group and its lpa. The previous one is kept until its successor is known.
struct free_entry {
    tbl_entry entry;
    uint64_t lpa;
};

static int write_link(free_entry* from, uint32_t next, bool is_tail) {
    tbl_entry_set_count(&from->entry, next);
    if (is_tail) {
        tbl_entry_set_tail(&from->entry);
    } else {
        tbl_entry_clear_tail(&from->entry);
    }
    const uint64_t failed_before = keep_journal_failures().count;
    (void)tbl_entry_write(&from->entry, from->lpa);  // always 0: the failure count is compared
    if (keep_journal_failures().count != failed_before) {
        log_err_as("link_free_tbl_entry_in_group", "Fail to link tbl list, group_num %llu\n",
                   ull(tbl_group_of(from->lpa)));
        return -1;
    }
    return 0;
}

// Entry by entry, from the group's first to its last.
static int link_by_entries(uint64_t group, uint16_t* head) {
    int count = 0;
    free_entry prev{};
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        free_entry here{{}, tbl_lpa_of(group, offset)};
        if (tbl_entry_read(&here.entry, here.lpa) < 0) {
            log_err_as("link_free_tbl_entry_in_group",
                       "Fail to link free tbl entry, group_num %llu\n", ull(group));
            return -1;
        }
        if (tbl_entry_is_used(&here.entry)) {
            continue;
        }
        if (count == 0) {
            *head = static_cast<uint16_t>(offset);
        } else if (write_link(&prev, offset, false) != 0) {
            return -1;  // logged there
        }
        count++;
        prev = here;
    }
    if (count > 0 && write_link(&prev, 0, true) != 0) {
        return -1;  // logged there
    }
    return count;
}

// Which entries of a group are free: bit i of mask k stands for entry 64 * k + 63 - i, so that the
// lowest bit is the last entry.
constexpr uint32_t MASK_ENTRIES = 64;

struct free_masks {
    uint64_t masks[TBL_GROUP_ENTRIES / MASK_ENTRIES];
};

// Eight at a time: a byte for each entry, whose lowest bits one multiply moves together.
static uint64_t free_mask(const uint16_t* words) {
    constexpr uint64_t GATHER = 0x8040'2010'0804'0201;
    static_assert(TBL_USED_BIT == 1u << 15);
    uint8_t free[MASK_ENTRIES];
    for (uint32_t i = 0; i < MASK_ENTRIES; i++) {
        free[i] = static_cast<uint8_t>((words[i] >> 15) ^ 1);
    }
    uint64_t mask = 0;
    for (uint32_t i = 0; i < MASK_ENTRIES; i += 8) {
        uint64_t eight = 0;
        memcpy(&eight, free + i, sizeof eight);
        mask = mask << 8 | eight * GATHER >> 56;
    }
    return mask;
}

// The part of mask `k` that stands for the entries `begin` to `end` - 1 of the group.
static uint64_t cut_mask(const free_masks* free, uint32_t k, uint32_t begin, uint32_t end) {
    const uint32_t first = k * MASK_ENTRIES;
    const uint32_t behind = first + MASK_ENTRIES;
    uint64_t mask = free->masks[k];
    if (begin > first) {
        mask &= (uint64_t{1} << (behind - begin)) - 1;
    }
    return end < behind ? mask >> (behind - end) << (behind - end) : mask;
}

// A list that is made from its tail to its head.
struct image_list {
    unsigned next;  // link to the entry before: its offset, or the tail's link
    int count;
};

// Puts the free ones of the entries `begin` to `end` - 1 before the list. Returns whether a link
// changed.
static bool link_part(image_list* list, uint16_t* words, const free_masks* free,
                      const tbl_group_part& part) {
    constexpr unsigned LINK_BITS = TBL_TAIL_BIT | TBL_COUNT_MASK;
    unsigned next = list->next;
    unsigned differing = 0;
    int count = 0;
    for (uint32_t k = (part.end - 1) / MASK_ENTRIES + 1; k-- > part.begin / MASK_ENTRIES;) {
        const uint32_t last = k * MASK_ENTRIES + MASK_ENTRIES - 1;
        for (uint64_t mask = cut_mask(free, k, part.begin, part.end); mask != 0; mask &= mask - 1) {
            const uint32_t offset = last - static_cast<uint32_t>(std::countr_zero(mask));
            const unsigned linked = (words[offset] & ~LINK_BITS) | next;
            differing |= words[offset] ^ linked;
            words[offset] = static_cast<uint16_t>(linked);
            next = offset;
            count++;
        }
    }
    list->next = next;
    list->count += count;
    return differing != 0;
}

// In the image. Returns the number of free entries. A block without one stays as it is, damaged or
// not; a damaged block with one is written again.
static int link_in_image(tbl_group_image* image, uint16_t* head) {
    free_masks free;
    for (uint32_t k = 0; k < std::size(free.masks); k++) {
        free.masks[k] = free_mask(image->words + k * MASK_ENTRIES);
    }
    image_list list = {TBL_TAIL_BIT, 0};
    uint32_t differing = 0;  // bit i: a link in block i changed
    for (uint32_t i = image->block_count; i-- > 0;) {
        const int count_behind = list.count;
        if (link_part(&list, image->words, &free, tbl_group_part_of(image, i))) {
            differing |= 1u << i;
        }
        image->changed |= list.count != count_behind ? 1u << i : 0;
    }
    tbl_group_keep_unsound(image);
    image->changed |= differing;
    if (list.count > 0) {
        *head = static_cast<uint16_t>(list.next);
    }
    return list.count;
}

int link_free_tbl_entry_in_group(uint64_t group, uint16_t* head) {
    if (group >= TBL_GROUP_COUNT) {
        log_err("Fail to link free tbl entry, group_num %llu\n", ull(group));
        return -1;
    }
    tbl_group_image image;
    if (tbl_group_load(current_tbl.fd, &image, group)) {
        const int count = link_in_image(&image, head);
        if (tbl_group_store(current_tbl.fd, &image)) {
            return count;
        }
    }
    return link_by_entries(group, head);
}

void tbl_note_damage_before_link(uint64_t group) {
    tbl_group_image image;
    if (!tbl_group_load(current_tbl.fd, &image, group)) {
        return;  // the relink fails in the same way and logs it
    }
    tbl_group_mark_free(&image);
    for (uint32_t i = 0; i < image.block_count; i++) {
        const node_mismatch found = mismatch_of(&image.blocks[i]);
        if ((image.changed >> i & 1) != 0 && found.found) {
            tbl_note_damaged_block(image.first_block + i, &found);
        }
    }
}

// A walk along one free list: its start, its position and its count so far.
struct list_walk {
    uint64_t group;
    uint64_t start;   // offset in the group
    uint64_t offset;  // of the current entry
    uint16_t count;
    uint16_t expected;
};

static int end_at_tail(const list_walk* walk) {
    const uint64_t tail = tbl_lpa_of(walk->group, walk->offset);
    if (walk->count != walk->expected) {
        log_err_as("tbl_check_group_free_count",
                   "FREE_COUNT NOT MATCH in TBL freelist, free count %u check_free_count %u "
                   "group_num %llu offset %llu (lpa %llu)\n",
                   walk->count, walk->expected, ull(walk->group), ull(walk->start), ull(tail));
        return -1;
    }
    printf(
        "TARN_INFO: FREE_COUNT IS MATCH in TBL freelist, free count %u check_free_count %u "
        "group_num %llu group_offset %llu (lpa %llu), tail entry offset %llu (lpa %llu)\n",
        walk->count, walk->count, ull(walk->group), ull(walk->start),
        ull(tbl_lpa_of(walk->group, walk->start)), ull(walk->offset), ull(tail));
    return 0;
}

static int end_without_tail(const list_walk* walk) {
    log_err_as("tbl_check_group_free_count",
               "NOT TAIL last entry in TBL freelist, group_num %llu offset %llu (lpa %llu) "
               "count %u check_free_count %u\n",
               ull(walk->group), ull(walk->offset), ull(tbl_lpa_of(walk->group, walk->offset)),
               walk->count, walk->expected);
    return -1;
}

int tbl_check_group_free_count(uint64_t group, uint64_t offset, uint16_t expected) {
    printf("TARN_INFO: TBL free start from group_num %llu group_offset %llu (lpa %llu)\n",
           ull(group), ull(offset), ull(tbl_lpa_of(group, offset)));
    if (group >= TBL_GROUP_COUNT || offset >= TBL_GROUP_ENTRIES) {
        log_err("tbl_check_group_free_count read error\n");
        return -1;
    }
    tbl_group_reader entries;
    tbl_group_reader_open(&entries, group);
    list_walk walk = {group, offset, offset, 0, expected};
    while (walk.count <= TBL_GROUP_ENTRIES) {  // a list that is longer loops
        const uint64_t lpa = tbl_lpa_of(group, walk.offset);
        tbl_entry entry{};
        if (tbl_group_reader_get(&entries, &entry, lpa) < 0) {
            // The repair of an index skips unsound lists: this one may be sound.
            log_keep(keep_reason::unread, "tbl_check_group_free_count read error\n");
            return -1;
        }
        if (tbl_entry_is_used(&entry)) {
            log_err("USED entry in TBL freelist, group_num %llu offset %llu (lpa %llu)\n",
                    ull(group), ull(walk.offset), ull(lpa));
            // Deliberate: after a used tail the count still decides.
            return tbl_entry_is_tail(&entry) ? end_at_tail(&walk) : end_without_tail(&walk);
        }
        walk.count++;
        if (tbl_entry_is_tail(&entry)) {
            return end_at_tail(&walk);
        }
        walk.offset = tbl_entry_count(&entry);
    }
    return end_without_tail(&walk);
}
