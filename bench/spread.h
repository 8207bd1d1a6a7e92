// Which extents the mappings of a benchmark use: sequential ones, or random ones out of 25 % more
// extents, as after years of snapshots. Below: nothing. Above: the generators of volumes and of the
// peers' input.
#pragma once

#include <cstdint>

struct spread {
    uint64_t mappings;
    uint64_t among;  // the number of extents that random ones are chosen from; 0: sequential
};

inline spread scattered(uint64_t mappings) {
    return {mappings, mappings + mappings / 4};
}

// A permutation of 0 .. 2^bits - 1: four rounds of mixing the two halves of the number.
inline uint64_t permuted(uint64_t x, unsigned bits) {
    const unsigned low_bits = bits / 2;
    const uint64_t low_mask = (uint64_t{1} << low_bits) - 1;
    const uint64_t high_mask = (uint64_t{1} << (bits - low_bits)) - 1;
    uint64_t low = x & low_mask;
    uint64_t high = x >> low_bits;
    for (uint64_t round = 1; round <= 4; round++) {
        high ^= ((low + round) * 0x9E3779B97F4A7C15 >> 20) & high_mask;
        low ^= ((high + round) * 0xC2B2AE3D27D4EB4F >> 20) & low_mask;
    }
    return high << low_bits | low;
}

// The number of extents that the mappings are chosen from.
inline uint64_t spread_extents(const spread& spread) {
    return spread.among != 0 ? spread.among : spread.mappings;
}

// The extent of mapping `i`; no two share one.
inline uint64_t spread_extent(const spread& spread, uint64_t i) {
    if (spread.among == 0) {
        return i;
    }
    const uint64_t extents = spread.among;
    unsigned bits = 2;
    while (uint64_t{1} << bits < extents) {
        bits++;
    }
    uint64_t x = permuted(i, bits);
    while (x >= extents) {  // stays a permutation of 0 .. extents - 1
        x = permuted(x, bits);
    }
    return x;
}
