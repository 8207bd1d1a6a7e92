// A small generator of numbers, the same on every machine and with every library: a sample is made
// of its parameters alone. Below: nothing.
#pragma once

#include <cstdint>

namespace lab {

struct random_stream {
    uint64_t state;
};

// Two streams of one seed with different names have nothing to do with each other.
random_stream random_of(uint64_t seed, uint64_t name);
uint64_t random_next(random_stream* random);
// 0 to bound - 1. The bound is not 0.
uint64_t random_below(random_stream* random, uint64_t bound);
// Both ends included.
uint64_t random_between(random_stream* random, uint64_t low, uint64_t high);
// True this many times out of a hundred.
bool random_chance(random_stream* random, unsigned percent);
// A number that depends on the two alone.
uint64_t scramble(uint64_t a, uint64_t b);

}  // namespace lab
