// A small random number generator with the same output on every machine and with every library, so
// that a sample depends only on its parameters. Below: nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace lab {

struct random_stream {
    uint64_t state;
};

// Streams with the same seed and different names are independent.
random_stream random_of(uint64_t seed, uint64_t name);
uint64_t random_next(random_stream* random);
// From 0 to bound - 1. The bound must not be 0.
uint64_t random_below(random_stream* random, uint64_t bound);
// Both ends included.
uint64_t random_between(random_stream* random, uint64_t low, uint64_t high);
// True with this probability in percent.
bool random_chance(random_stream* random, unsigned percent);
std::vector<uint8_t> noise_bytes(uint64_t noise, size_t length);
// A hash of the two numbers.
uint64_t scramble(uint64_t a, uint64_t b);

}  // namespace lab
