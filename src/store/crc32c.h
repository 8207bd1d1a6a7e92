// CRC-32C (Castagnoli): the checksum of every node and block. Stateless.
#pragma once

#include <cstddef>
#include <cstdint>

// Stores the checksum of `len` bytes at `buf` through `out`: reflected polynomial 0x82F63B78,
// register 0xFFFFFFFF at the start, complemented at the end. Calls are independent; 0 bytes
// give 0; the nine digits "123456789" give 0xE3069283.
void tarn_crc32c(const void* buf, uint32_t len, uint32_t* out);

// The checksums of `count` consecutive 512-byte blocks, each with its last four bytes (where it
// keeps its checksum) taken as zero. For whole-file procedures: several blocks are summed at once
// if the processor has an instruction for it.
void tarn_crc32c_blocks(const void* blocks, size_t count, uint32_t* checksums);

// One implementation of both, chosen once at start. All give the same results.
struct crc32c_routines {
    const char* name;
    uint32_t (*bytes)(const void* buf, size_t len);
    void (*blocks)(const void* blocks, size_t count, uint32_t* checksums);
};
extern const crc32c_routines crc32c_portable;  // table-driven: the reference
const crc32c_routines* crc32c_of_processor();  // null: the processor has no instruction for it
