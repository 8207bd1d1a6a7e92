#include "store/crc32c.h"

#include <array>

static constexpr uint32_t POLYNOMIAL = 0x82F63B78;
static constexpr size_t BLOCK_SIZE = 512;
static constexpr size_t BLOCK_SUMMED = BLOCK_SIZE - sizeof(uint32_t);

static constexpr std::array<uint32_t, 256> make_table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t byte = 0; byte < table.size(); byte++) {
        uint32_t rest = byte;
        for (int bit = 0; bit < 8; bit++) {
            rest = (rest >> 1) ^ ((rest & 1) != 0 ? POLYNOMIAL : 0);
        }
        table[byte] = rest;
    }
    return table;
}

static constexpr std::array<uint32_t, 256> TABLE = make_table();

static uint32_t add_byte(uint32_t rest, uint8_t byte) {
    return (rest >> 8) ^ TABLE[(rest ^ byte) & 0xFF];
}

static uint32_t add_bytes(uint32_t rest, const uint8_t* bytes, size_t len) {
    for (size_t i = 0; i < len; i++) {
        rest = add_byte(rest, bytes[i]);
    }
    return rest;
}

static uint32_t portable_bytes(const void* buf, size_t len) {
    return ~add_bytes(0xFFFFFFFF, static_cast<const uint8_t*>(buf), len);
}

static void portable_blocks(const void* blocks, size_t count, uint32_t* checksums) {
    static constexpr uint8_t ZERO[sizeof(uint32_t)] = {};
    const auto* block = static_cast<const uint8_t*>(blocks);
    for (size_t i = 0; i < count; i++, block += BLOCK_SIZE) {
        const uint32_t rest = add_bytes(0xFFFFFFFF, block, BLOCK_SUMMED);
        checksums[i] = ~add_bytes(rest, ZERO, sizeof ZERO);
    }
}

const crc32c_routines crc32c_portable = {"portable", portable_bytes, portable_blocks};

static const crc32c_routines* choose() {
    const crc32c_routines* fast = crc32c_of_processor();
    return fast != nullptr ? fast : &crc32c_portable;
}

static const crc32c_routines* const chosen = choose();

void tarn_crc32c(const void* buf, uint32_t len, uint32_t* out) {
    *out = chosen->bytes(buf, len);
}

void tarn_crc32c_blocks(const void* blocks, size_t count, uint32_t* checksums) {
    chosen->blocks(blocks, count, checksums);
}
