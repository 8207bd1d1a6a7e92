// CRC-32C (Castagnoli): the checksum of every node and block. State-free.
#pragma once

#include <cstddef>
#include <cstdint>

// Stores the checksum of `len` bytes at `buf` through `out`: reflected polynomial 0x82F63B78,
// register 0xFFFFFFFF at the start, complemented at the end. Every call starts afresh; 0 bytes
// give 0; the nine digits "123456789" give 0xE3069283.
void tarn_crc32c(const void* buf, uint32_t len, uint32_t* out);
