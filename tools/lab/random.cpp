#include "lab/random.h"

namespace lab {

constexpr uint64_t STEP = 0x9E3779B97F4A7C15;

static uint64_t mix(uint64_t word) {
    word = (word ^ (word >> 30)) * 0xBF58476D1CE4E5B9;
    word = (word ^ (word >> 27)) * 0x94D049BB133111EB;
    return word ^ (word >> 31);
}

uint64_t scramble(uint64_t a, uint64_t b) {
    return mix(mix(a + STEP) ^ (b * STEP + 1));
}

random_stream random_of(uint64_t seed, uint64_t name) {
    return {scramble(seed, name)};
}

uint64_t random_next(random_stream* random) {
    random->state += STEP;
    return mix(random->state);
}

uint64_t random_below(random_stream* random, uint64_t bound) {
    return random_next(random) % bound;
}

uint64_t random_between(random_stream* random, uint64_t low, uint64_t high) {
    return low + random_below(random, high - low + 1);
}

bool random_chance(random_stream* random, unsigned percent) {
    return random_below(random, 100) < percent;
}

std::vector<uint8_t> noise_bytes(uint64_t noise, size_t length) {
    random_stream random = {noise};
    std::vector<uint8_t> bytes(length);
    for (uint8_t& byte : bytes) {
        byte = static_cast<uint8_t>(random_next(&random));
    }
    return bytes;
}

}  // namespace lab
