// Small helpers for printf-style output that keep a message one literal that grep finds.
#pragma once

#include <cstdint>

// The type that %llu prints, on every platform. Also takes packed fields, by value.
constexpr unsigned long long ull(uint64_t value) {
    return value;
}

// The sixteen bytes of a uuid as arguments of one of the texts below.
#define UUID_ARGS(u)                                                                         \
    (u)[0], (u)[1], (u)[2], (u)[3], (u)[4], (u)[5], (u)[6], (u)[7], (u)[8], (u)[9], (u)[10], \
        (u)[11], (u)[12], (u)[13], (u)[14], (u)[15]

// 32 hexadecimal digits.
#define UUID_PLAIN "%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x"
// 8-4-4-4-12, zero-filled.
#define UUID_DASHED "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x"
// 8-4-4-4-12, filled with blanks: deliberate, a byte below 0x10 shows as a blank and one digit.
#define UUID_DASHED_BLANK "%2x%2x%2x%2x-%2x%2x-%2x%2x-%2x%2x-%2x%2x%2x%2x%2x%2x"
