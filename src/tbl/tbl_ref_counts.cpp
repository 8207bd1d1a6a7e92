#include "tbl/tbl_ref_counts.h"

#include <algorithm>
#include <new>

#include "store/zero_memory.h"
#include "tbl/tbl_ref_window.h"

// Null: the window is full.
static region_head* open_region(ref_counts* counts, uint32_t region, region_kind kind,
                                uint32_t room, size_t size) {
    size = (size + UNIT - 1) / UNIT * UNIT;
    const size_t limit = counts->window_used == 0 ? counts->window_room : counts->window_size;
    if (counts->window_used + size > limit) {
        return nullptr;
    }
    counts->place[region] = static_cast<uint32_t>(counts->window_used / UNIT) + 1;
    counts->window_used += size;
    region_head* head = head_of(counts, region);
    *head = {region, kind, 0, room, {}, {}};
    return head;
}

static void forget_window(ref_counts* counts) {
    memset(counts->window, 0, counts->window_used);
    memset(counts->place, 0, counts->end * sizeof(uint32_t));
    if (counts->apart_used != 0) {
        memset(counts->apart, 0, APART_SLOTS * sizeof(uint64_t));
    }
    counts->window_used = 0;
    counts->apart_used = 0;
}

ref_counts* ref_counts_open(size_t window, uint64_t extents) {
    auto* counts = new (std::nothrow) ref_counts{};
    if (counts == nullptr) {
        return nullptr;
    }
    counts->extents = std::min(extents, TBL_TOTAL_COUNT);
    counts->sure_bits = std::bit_floor(counts->extents | 1) - 1;
    counts->window_size = std::max(window, REF_WINDOW_SIZE_MIN);
    counts->window_room = std::max(counts->window_size, WIDE_SIZE);
    counts->window = static_cast<uint8_t*>(zero_memory(counts->window_room));
    counts->place = static_cast<uint32_t*>(zero_memory(PLACES_SIZE));
    counts->pending = static_cast<uint32_t*>(zero_memory(PLACES_SIZE));
    counts->apart = static_cast<uint64_t*>(zero_memory(APART_SLOTS * sizeof(uint64_t)));
    if (counts->window == nullptr || counts->place == nullptr || counts->pending == nullptr ||
        counts->apart == nullptr) {
        ref_counts_close(counts);
        return nullptr;
    }
    counts->first_scan = true;
    counts->is_more = true;
    return counts;
}

void ref_counts_restart(ref_counts* counts) {
    forget_window(counts);
    memset(counts->pending, 0, counts->end * sizeof(uint32_t));
    memset(counts->met, 0, sizeof counts->met);
    counts->end = 0;
    counts->first_scan = true;
    counts->is_more = true;
    counts->past_max = false;
}

void ref_counts_close(ref_counts* counts) {
    if (counts == nullptr) {
        return;
    }
    zero_memory_free(counts->window, counts->window_room);
    zero_memory_free(counts->place, PLACES_SIZE);
    zero_memory_free(counts->pending, PLACES_SIZE);
    zero_memory_free(counts->apart, APART_SLOTS * sizeof(uint64_t));
    delete counts;
}

// A region that waits, in the form that suits the number of its references.
static region_head* open_pending(ref_counts* counts, uint32_t region, uint32_t references) {
    if (references == PENDING_WIDE) {
        return open_region(counts, region, REGION_WIDE, 0, WIDE_SIZE);
    }
    if (references <= SPARSE_MAX) {
        return open_region(counts, region, REGION_SPARSE, references,
                           sizeof(region_head) + references * sizeof(uint32_t));
    }
    return open_region(counts, region, REGION_DENSE, 0, DENSE_SIZE);
}

bool ref_counts_begin_scan(ref_counts* counts) {
    if (!counts->is_more) {
        return false;
    }
    counts->is_more = false;
    if (counts->end == 0) {
        return true;  // the first scan opens the regions as it meets them
    }
    counts->first_scan = false;
    forget_window(counts);
    for (uint32_t region = 0; region < counts->end; region++) {
        const uint32_t references = counts->pending[region];
        if (references == 0) {
            continue;
        }
        if (open_pending(counts, region, references) == nullptr) {
            counts->is_more = true;
            break;
        }
        counts->pending[region] = 0;
    }
    return true;
}

// The region's counts do not fit the way they are kept: it is counted again, wide.
static void abandon(ref_counts* counts, region_head* head) {
    head->kind = REGION_ABANDONED;
    counts->pending[head->region] = PENDING_WIDE;
    counts->is_more = true;
}

// One more reference to an extent whose counter is full.
static void count_apart(ref_counts* counts, region_head* head, uint64_t lpa) {
    uint64_t* slot = apart_slot(counts, lpa);
    if (*slot == 0) {  // extent 0 with nothing above 15 yet looks empty, and is the same
        if (counts->apart_used == APART_MAX) {
            abandon(counts, head);
            return;
        }
        counts->apart_used++;
        *slot = lpa;
    }
    if ((*slot >> APART_SHIFT) + NIBBLE_MAX == TBL_COUNT_MAX) {
        counts->past_max = true;
        return;
    }
    *slot += APART_ONE;
}

constexpr size_t CACHE_LINE = 64;  // bytes

// Counts what is in a bucket.
static void drain(ref_counts* counts, region_head* head, uint32_t part) {
    uint8_t* const counters = counters_of(head) + part * PART_COUNTERS;
    const uint16_t* const bucket = bucket_of(head, part);
    const uint32_t fill = head->fill[part];
    head->fill[part] = 0;
    for (size_t line = 0; line < PART_COUNTERS; line += CACHE_LINE) {
        __builtin_prefetch(counters + line, 1);
    }
    for (uint32_t i = 0; i < fill; i++) {
        const uint32_t offset = bucket[i];
        uint8_t* const counter = &counters[offset / 2];
        const unsigned shift = offset % 2 * 4;
        const unsigned value = *counter;
        if (((value >> shift) & NIBBLE_MAX) != NIBBLE_MAX) [[likely]] {
            *counter = static_cast<uint8_t>(value + (1u << shift));
        } else {
            count_apart(
                counts, head,
                (uint64_t{head->region} << REF_REGION_SHIFT) + part * PART_EXTENTS + offset);
        }
    }
}

static void add_dense(ref_counts* counts, region_head* head, uint64_t lpa) {
    const uint32_t part = static_cast<uint32_t>(lpa >> PART_SHIFT) % PARTS;
    const uint32_t fill = head->fill[part];
    bucket_of(head, part)[fill] = static_cast<uint16_t>(lpa);
    head->fill[part] = static_cast<uint16_t>(fill + 1);
    if (fill + 1 == BUCKET_ENTRIES) [[unlikely]] {
        drain(counts, head, part);
    }
}

// Of a region that is not dense.
static void add_other(ref_counts* counts, region_head* head, uint64_t lpa) {
    const auto offset = static_cast<uint32_t>(lpa % REF_REGION_EXTENTS);
    if (head->kind == REGION_SPARSE) {
        if (head->used == head->room) {
            abandon(counts, head);  // somebody writes to the maps: count again
        } else {
            offsets_of(head)[head->used++] = offset;
        }
    } else if (head->kind == REGION_WIDE) {
        uint16_t* counter = &wide_of(head)[offset];
        if (*counter == TBL_COUNT_MAX) {
            counts->past_max = true;
        } else {
            ++*counter;
        }
    }
}

// Of a region that has no place in the window: only the first scan makes one, as long as it can.
static void add_without_place(ref_counts* counts, uint32_t region, uint64_t lpa) {
    if (!counts->first_scan) {
        return;
    }
    counts->end = std::max(counts->end, region + 1);
    counts->met[region / 64] |= uint64_t{1} << region % 64;
    region_head* head = counts->pending[region] == 0
                            ? open_region(counts, region, REGION_DENSE, 0, DENSE_SIZE)
                            : nullptr;
    if (head != nullptr) {
        add_dense(counts, head, lpa);
        return;
    }
    if (counts->pending[region] < PENDING_WIDE - 1) {
        counts->pending[region]++;
    }
    counts->is_more = true;
}

static inline void add_known(ref_counts* counts, uint64_t lpa) {
    const auto region = static_cast<uint32_t>(lpa >> REF_REGION_SHIFT);
    region_head* head = head_of(counts, region);
    if (head == nullptr) [[unlikely]] {
        add_without_place(counts, region, lpa);
    } else if (head->kind == REGION_DENSE) [[likely]] {
        add_dense(counts, head, lpa);
    } else {
        add_other(counts, head, lpa);
    }
}

bool ref_counts_add(ref_counts* counts, uint64_t lpa) {
    if (lpa >= counts->extents) {
        return false;
    }
    add_known(counts, lpa);
    return true;
}

// 63 counters of 4 bits from an even one on, as bytes: 31 of them and half of the next one.
constexpr size_t RUN_BYTES = 32;
constexpr uint64_t EACH = 0x1111111111111111;

// Adds one to each counter of 4 bits that has a bit in `ones`, 4 words of 16 counters. False, and
// nothing is added: one of them is full.
static bool add_to_counters(uint8_t* counters, const uint64_t ones[4]) {
    uint64_t words[4];
    uint64_t full = 0;
    for (size_t i = 0; i < 4; i++) {
        const uint64_t word = load_word(counters + i * sizeof word);
        full |= word & word >> 1 & word >> 2 & word >> 3 & ones[i];
        words[i] = word + ones[i];
    }
    if (full != 0) {
        return false;
    }
    memcpy(counters, words, sizeof words);
    return true;
}

// The extents `lpa` to lpa + 62, in one step. False: they are to be counted one by one.
static bool add_run(ref_counts* counts, uint64_t lpa) {
    const uint32_t offset = lpa % PART_EXTENTS;
    region_head* head = head_of(counts, static_cast<uint32_t>(lpa >> REF_REGION_SHIFT));
    if (offset > PART_EXTENTS - 2 * RUN_BYTES || head == nullptr || head->kind != REGION_DENSE) {
        return false;
    }
    static constexpr uint64_t from_even[4] = {EACH, EACH, EACH, EACH >> 4};
    static constexpr uint64_t from_odd[4] = {EACH - 1, EACH, EACH, EACH};
    const auto part = static_cast<uint32_t>(lpa >> PART_SHIFT) % PARTS;
    uint8_t* counters = counters_of(head) + part * PART_COUNTERS + offset / 2;
    return add_to_counters(counters, offset % 2 == 0 ? from_even : from_odd);
}

static uint64_t word_of(const data_node* node, size_t slot) {
    return load_word(node->payload + slot * sizeof(uint64_t));
}

// All 63 entries are mapped to extents that follow each other, none of them past the last one.
static bool is_run(const ref_counts* counts, const data_node* node) {
    const uint64_t first = word_of(node, 0);
    if (word_of(node, MAP_NODE_ENTRIES - 1) != first + MAP_NODE_ENTRIES - 1 ||
        (first & MAP_MAPPED_BIT) == 0 ||
        (first & MAP_LPA_MASK) + MAP_NODE_ENTRIES > counts->extents) {
        return false;
    }
    uint64_t differences = 0;
    for (size_t slot = 0; slot < MAP_NODE_ENTRIES; slot++) {
        differences |= word_of(node, slot) ^ (first + slot);
    }
    return differences == 0;
}

// Every entry is mapped to an extent that is counted. A few such nodes are missed, for the sake of
// a test without a branch.
static bool is_full(const ref_counts* counts, const data_node* node) {
    uint64_t common = ~uint64_t{0};
    uint64_t any = 0;
    for (size_t slot = 0; slot < MAP_NODE_ENTRIES; slot++) {
        common &= word_of(node, slot);
        any |= word_of(node, slot);
    }
    return (common & MAP_MAPPED_BIT) != 0 && (any & MAP_LPA_MASK & ~counts->sure_bits) == 0;
}

// The entries of a full node, in a scan that has no place for some regions. To ask each entry for
// its place would be one wrong guess of the processor after the other; so they are first sorted
// into those with a place, from the front, and the others, from the back.
static node_references add_full_node(ref_counts* counts, const data_node* node) {
    uint64_t sorted[MAP_NODE_ENTRIES];
    uint32_t front = 0;
    uint32_t back = MAP_NODE_ENTRIES - 1;
    for (size_t slot = 0; slot < MAP_NODE_ENTRIES; slot++) {
        const uint64_t lpa = word_of(node, slot) & MAP_LPA_MASK;
        const uint32_t has_place = counts->place[lpa >> REF_REGION_SHIFT] != NOWHERE ? 1 : 0;
        sorted[front] = lpa;
        sorted[back] = lpa;
        front += has_place;
        back -= has_place ^ 1;
    }
    const uint32_t end = counts->first_scan ? MAP_NODE_ENTRIES : front;
    for (uint32_t i = 0; i < end; i++) {
        add_known(counts, sorted[i]);
    }
    return {MAP_NODE_ENTRIES, false};
}

node_references ref_counts_add_node(ref_counts* counts, const data_node* node, uint32_t entries) {
    if (entries == MAP_NODE_ENTRIES && is_run(counts, node) &&
        add_run(counts, word_of(node, 0) & MAP_LPA_MASK)) {
        return {MAP_NODE_ENTRIES, false};
    }
    const bool lacks_places = counts->is_more || !counts->first_scan;
    if (entries == MAP_NODE_ENTRIES && lacks_places && is_full(counts, node)) {
        return add_full_node(counts, node);
    }
    node_references found = {0, false};
    for (uint32_t slot = 0; slot < entries; slot++) {
        const uint64_t word = word_of(node, slot);
        if ((word & MAP_MAPPED_BIT) == 0) {
            continue;
        }
        found.mapped++;
        const uint64_t lpa = word & MAP_LPA_MASK;
        if (lpa >= counts->extents) [[unlikely]] {
            found.past_end = true;
        } else {
            add_known(counts, lpa);
        }
    }
    return found;
}

// Whether the sorted offsets name one extent more often than an entry can count.
static bool is_past_max(region_head* head) {
    const uint32_t* offsets = offsets_of(head);
    for (uint32_t i = TBL_COUNT_MAX; i < head->used; i++) {
        if (offsets[i] == offsets[i - TBL_COUNT_MAX]) {
            return true;
        }
    }
    return false;
}

void ref_counts_end_scan(ref_counts* counts) {
    for (uint32_t region = 0; region < counts->end; region++) {
        region_head* head = head_of(counts, region);
        if (head == nullptr) {
            continue;
        }
        if (head->kind == REGION_SPARSE) {
            std::sort(offsets_of(head), offsets_of(head) + head->used);
            counts->past_max = counts->past_max || is_past_max(head);
        }
        for (uint32_t part = 0; part < PARTS && head->kind == REGION_DENSE; part++) {
            drain(counts, head, part);
        }
    }
}

bool ref_counts_is_past_max(const ref_counts* counts) {
    return counts->past_max;
}

bool ref_counts_has_region(const ref_counts* counts, uint32_t region) {
    const region_head* head = region < counts->end ? head_of(counts, region) : nullptr;
    return head != nullptr && head->kind != REGION_ABANDONED;
}

bool ref_counts_met_region(const ref_counts* counts, uint32_t region) {
    return (counts->met[region / 64] >> region % 64 & 1) != 0;
}
