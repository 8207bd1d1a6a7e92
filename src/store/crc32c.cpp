#include "store/crc32c.h"

#include <array>

static constexpr uint32_t POLYNOMIAL = 0x82F63B78;

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

void tarn_crc32c(const void* buf, uint32_t len, uint32_t* out) {
    const auto* bytes = static_cast<const uint8_t*>(buf);
    uint32_t rest = 0xFFFFFFFF;
    for (uint32_t i = 0; i < len; i++) {
        rest = (rest >> 8) ^ TABLE[(rest ^ bytes[i]) & 0xFF];
    }
    *out = ~rest;
}
