// The random choices of a campaign: the seed of a run decides all of them. Below: nothing.
#pragma once

#include <cstddef>
#include <cstdint>

class dice {
public:
    explicit dice(uint64_t seed) : state_(seed) { (void)next(); }
    uint64_t next() {  // splitmix64
        state_ += 0x9E3779B97F4A7C15;
        uint64_t z = state_;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
        return z ^ (z >> 31);
    }
    uint64_t below(uint64_t end) { return next() % end; }  // `end` is not 0
    bool percent(unsigned chance) { return below(100) < chance; }

private:
    uint64_t state_;
};
