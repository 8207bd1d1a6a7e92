// New uuids, from the system's own program. Below: descriptor.h, the platform's program call.
#pragma once

#include <cstdint>

// Fills `out` with the first `n` bytes of a fresh uuid (16 in all), in the order of its text.
// Returns 0; -1, logged, when `out` is null, the program does not run or says too little.
int uuid_gen(uint8_t* out, int n);

// Takes `n` bytes off a line of text: a pair of characters each, from the next hexadecimal digit
// on; what stands between is passed over, and the second of a pair is not looked at. False when the
// line ends before the pairs do.
bool uuid_of_line(const char* line, uint8_t* out, int n);
