// How many failing calls a test tries on each procedure: a few, or more if the environment says so.
#pragma once

#include <cstdint>
#include <cstdlib>

inline uint64_t injected_failures() {
    const char* text = getenv("TARN_INJECTED_FAILURES");
    return text != nullptr ? strtoull(text, nullptr, 10) : 12;
}
