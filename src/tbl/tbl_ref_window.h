// How a window of reference counts lies in memory: for the counting and for the reading of its
// groups. Below: tbl_ref_counts.h. Above: tbl_ref_counts.cpp, tbl_ref_groups.cpp.
#pragma once

#include <bit>

#include "tbl/tbl_ref_counts.h"

// A part of a region: what a bucket is for. Its counters fit in the first-level cache.
constexpr unsigned PART_SHIFT = 16;
constexpr uint32_t PART_EXTENTS = uint32_t{1} << PART_SHIFT;
constexpr uint32_t PARTS = REF_REGION_EXTENTS / PART_EXTENTS;
constexpr size_t PART_COUNTERS = PART_EXTENTS / 2;  // bytes, 4 bits an extent
constexpr uint32_t BUCKET_ENTRIES = 4096;
constexpr unsigned NIBBLE_MAX = 15;

enum region_kind : uint32_t {
    REGION_DENSE,      // counters of 4 bits, and buckets
    REGION_SPARSE,     // the offsets of its references, as they came
    REGION_WIDE,       // counters of 16 bits
    REGION_ABANDONED,  // dense, until too many of its counts were kept apart: it will be wide
};

// What a region has in the memory of a window; the rest of its kind comes after it.
struct region_head {
    uint32_t region;
    uint32_t kind;
    uint32_t used;  // sparse: offsets
    uint32_t room;
    uint16_t fill[PARTS];  // dense: entries in each bucket
    uint8_t pad[16];
};
static_assert(sizeof(region_head) == 64);

constexpr size_t DENSE_COUNTERS = REF_REGION_EXTENTS / 2;
constexpr size_t DENSE_BUCKETS = size_t{PARTS} * BUCKET_ENTRIES * sizeof(uint16_t);
constexpr size_t DENSE_SIZE = sizeof(region_head) + DENSE_COUNTERS + DENSE_BUCKETS;
constexpr size_t WIDE_SIZE = sizeof(region_head) + REF_REGION_EXTENTS * sizeof(uint16_t);
constexpr uint32_t SPARSE_MAX = 16384;  // references of a region that is sorted, not counted

// Where a region is: its head's place in the window's memory, in units of 64 bytes, and 1 more.
constexpr uint32_t NOWHERE = 0;

// Counts above 15, by extent: the extent's number and, in the upper 16 bits, what is above.
constexpr uint32_t APART_SLOTS = 1u << 18;
constexpr uint32_t APART_MAX = APART_SLOTS / 4 * 3;
constexpr unsigned APART_SHIFT = 48;
constexpr uint64_t APART_ONE = uint64_t{1} << APART_SHIFT;
constexpr uint64_t APART_LPA = APART_ONE - 1;

// What is known of a region: how many references it has that no window has counted yet.
constexpr uint32_t PENDING_WIDE = ~uint32_t{0};

constexpr size_t PLACES_SIZE = REF_REGIONS * sizeof(uint32_t);

struct ref_counts {
    uint64_t extents;    // references to those below are counted
    uint64_t sure_bits;  // an lpa of no other bits is below it
    uint8_t* window;
    size_t window_size;  // bytes
    size_t window_room;  // bytes that are reserved: room for one wide region at least
    size_t window_used;  // bytes
    uint32_t* place;     // of each region, in this window
    uint32_t* pending;   // references of each region that waits for a later window
    uint32_t end;        // 1 more than the highest region that was met
    uint64_t met[(REF_REGIONS + 63) / 64];  // bit of each region that some reference is in
    bool first_scan;
    bool is_more;
    bool past_max;
    uint64_t* apart;  // APART_SLOTS
    uint32_t apart_used;
};

constexpr size_t UNIT = sizeof(region_head);

inline region_head* head_of(const ref_counts* counts, uint32_t region) {
    const uint32_t place = counts->place[region];
    return place == NOWHERE ? nullptr
                            : reinterpret_cast<region_head*>(counts->window + (place - 1) * UNIT);
}

inline uint8_t* counters_of(region_head* head) {
    return reinterpret_cast<uint8_t*>(head + 1);
}

inline uint16_t* bucket_of(region_head* head, uint32_t part) {
    return reinterpret_cast<uint16_t*>(counters_of(head) + DENSE_COUNTERS) + part * BUCKET_ENTRIES;
}

inline uint32_t* offsets_of(region_head* head) {
    return reinterpret_cast<uint32_t*>(head + 1);
}

inline uint16_t* wide_of(region_head* head) {
    return reinterpret_cast<uint16_t*>(head + 1);
}

// Never full: the slot of the extent, or the empty one where it belongs.
inline uint64_t* apart_slot(const ref_counts* counts, uint64_t lpa) {
    uint64_t slot = (lpa * 0x9E3779B97F4A7C15) >> (64 - std::bit_width(APART_SLOTS - 1));
    while (counts->apart[slot] != 0 && (counts->apart[slot] & APART_LPA) != lpa) {
        slot = (slot + 1) % APART_SLOTS;
    }
    return &counts->apart[slot];
}

inline uint64_t load_word(const uint8_t* at) {
    uint64_t word;
    memcpy(&word, at, sizeof word);
    return word;
}
