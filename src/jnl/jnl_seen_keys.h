// The keys (lpa, group or lea) that a walk has seen, each with the rank of its newest image: only
// that one is examined. Below: nothing. Above: verification, replay.
#pragma once

#include <cstdint>

constexpr uint64_t JNL_NO_RANK = ~uint64_t{0};
// The limit, whatever the ring holds: 64 MiB, or 96 MiB during the last growth.
constexpr uint64_t JNL_SEEN_SLOTS_MAX = uint64_t{1} << 22;

struct jnl_key_slot {
    uint64_t key;
    uint64_t rank;  // position in the walk, newest 0; JNL_NO_RANK: the slot is empty
};

// Owned by its walk, or by the passes of one volume; zero at start.
struct jnl_seen_keys {
    jnl_key_slot* slots;
    uint64_t slot_count;  // a power of two, or 0
    uint64_t used;
    bool full;  // a key did not fit: its image was skipped, and the walk has failed
};

// Returns 1 if the key is known with this rank or a newer (smaller) one; 0 if not, and now it is
// known with `rank`; -1 if there is no room for it, which is logged once per set and is a reason to
// keep the journal.
int jnl_seen_keys_test_and_add(jnl_seen_keys* keys, uint64_t key, uint64_t rank);
void jnl_seen_keys_free(jnl_seen_keys* keys);
