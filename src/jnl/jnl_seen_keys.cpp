#include "jnl/jnl_seen_keys.h"

#include <new>

#include "print.h"
#include "store/keep_journal.h"

static constexpr uint64_t FIRST_SLOT_COUNT = 1024;

// Spreads neighbouring keys, and keys a fixed distance apart, over all 64 bits.
static uint64_t mixed(uint64_t key) {
    key = (key ^ (key >> 30)) * 0xBF58476D1CE4E5B9;
    key = (key ^ (key >> 27)) * 0x94D049BB133111EB;
    return key ^ (key >> 31);
}

// The slot that holds `key`, or the empty one where it belongs. One slot in four stays empty, so
// the search ends.
static jnl_key_slot* slot_of(jnl_key_slot* slots, uint64_t slot_count, uint64_t key) {
    uint64_t at = mixed(key) & (slot_count - 1);
    while (slots[at].rank != JNL_NO_RANK && slots[at].key != key) {
        at = (at + 1) & (slot_count - 1);
    }
    return &slots[at];
}

static bool has_room(const jnl_seen_keys* keys) {
    return keys->used < keys->slot_count / 4 * 3;
}

static bool grow(jnl_seen_keys* keys) {
    const uint64_t wanted = keys->slot_count == 0 ? FIRST_SLOT_COUNT : keys->slot_count * 2;
    if (wanted > JNL_SEEN_SLOTS_MAX) {
        return false;
    }
    auto* slots = new (std::nothrow) jnl_key_slot[wanted];
    if (slots == nullptr) {
        return false;
    }
    for (uint64_t i = 0; i < wanted; i++) {
        slots[i] = {0, JNL_NO_RANK};
    }
    for (uint64_t i = 0; i < keys->slot_count; i++) {
        if (keys->slots[i].rank != JNL_NO_RANK) {
            *slot_of(slots, wanted, keys->slots[i].key) = keys->slots[i];
        }
    }
    delete[] keys->slots;
    keys->slots = slots;
    keys->slot_count = wanted;
    return true;
}

static int report_no_room(jnl_seen_keys* keys) {
    if (!keys->full) {
        // The record of this key is not applied.
        log_keep_as("jnl_seen_keys_test_and_add", keep_reason::unread,
                    "no room for more than %llu keys\n", ull(keys->used));
        keys->full = true;
    }
    return -1;
}

int jnl_seen_keys_test_and_add(jnl_seen_keys* keys, uint64_t key, uint64_t rank) {
    if (keys->slot_count == 0 && !grow(keys)) {
        return report_no_room(keys);
    }
    jnl_key_slot* slot = slot_of(keys->slots, keys->slot_count, key);
    if (slot->rank != JNL_NO_RANK) {
        if (slot->rank <= rank) {
            return 1;
        }
        slot->rank = rank;
        return 0;
    }
    if (!has_room(keys)) {
        if (!grow(keys)) {
            return report_no_room(keys);
        }
        slot = slot_of(keys->slots, keys->slot_count, key);
    }
    *slot = {key, rank};
    keys->used++;
    return 0;
}

void jnl_seen_keys_free(jnl_seen_keys* keys) {
    delete[] keys->slots;
    *keys = {};
}
