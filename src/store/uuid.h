// New uuids, from the system's own program. Below: the platform's program call.
#pragma once

#include <cstdint>

// Fills `out` with the first `n` bytes of a fresh uuid (16 in all), in the order of its text.
// Returns 0; -1, logged, when `out` is null, the program does not run or says too little.
int uuid_gen(uint8_t* out, int n);
