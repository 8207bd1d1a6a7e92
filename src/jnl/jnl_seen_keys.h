// The keys (lpa, group or lea) that a walk has met, each with the rank of the image that counted:
// only the newest image of a key is examined. Below: nothing. Above: verification, replay.
#pragma once

#include <cstdint>

constexpr uint64_t JNL_NO_RANK = ~uint64_t{0};
// Whatever the ring holds: 64 MiB, half as much again while they grow to it.
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
    bool full;  // a key found no place: its image was lost, and the walk has failed
};

// 1: the key is known with this rank or a newer (smaller) one. 0: it was not, and now is known with
// `rank`. -1: no room for it. The first time in a set that is logged and counted as a failed write.
int jnl_seen_keys_test_and_add(jnl_seen_keys* keys, uint64_t key, uint64_t rank);
void jnl_seen_keys_free(jnl_seen_keys* keys);
