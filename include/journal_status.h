// The values of the journal's shutdown tag. Ground floor: used by the command line, the journal and
// the volume procedures.
#pragma once

#include <cstdint>

constexpr uint32_t JNL_STATUS_INIT = 0x00000000;      // never used
constexpr uint32_t JNL_STATUS_SUCCESS = 0x25521814;   // shut down cleanly
constexpr uint32_t JNL_STATUS_ABNORMAL = 0xFFFFFFFF;  // in use, or not shut down cleanly
constexpr uint32_t JNL_STATUS_BAD = 0x66656800;       // replay or check failed
constexpr uint32_t JNL_STATUS_RO = 0x77777777;        // a volume could not be written
