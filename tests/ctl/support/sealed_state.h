// State files made by hand: the text of one, with a checksum that another implementation computes.
// Below: nothing.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

// CRC-32C bit by bit: reflected polynomial 0x82F63B78.
inline uint32_t slow_crc32c(const std::string& text) {
    uint32_t state = 0xFFFFFFFF;
    for (const char letter : text) {
        state ^= static_cast<uint8_t>(letter);
        for (int bit = 0; bit < 8; bit++) {
            state = (state >> 1) ^ ((state & 1) != 0 ? 0x82F63B78U : 0);
        }
    }
    return ~state;
}

// `body` is the document without its checksum and its last brace.
inline std::string sealed_state(const std::string& body) {
    char tail[32];
    snprintf(tail, sizeof tail, ",\"crc32c\":\"%08x\"}\n", slow_crc32c(body));
    return body + tail;
}

// The document with other text in the place of `what`, and its checksum right.
inline std::string changed_state(std::string state, const std::string& what,
                                 const std::string& by) {
    constexpr size_t TAIL = 22;
    state.resize(state.size() - TAIL);
    const size_t at = state.find(what);
    return at == std::string::npos ? "" : sealed_state(state.replace(at, what.size(), by));
}

// What follows `name` in the document, up to the next comma.
inline std::string field_of(const std::string& state, const std::string& name) {
    const size_t at = state.find("\"" + name + "\":");
    return at == std::string::npos ? "" : state.substr(at, state.find(',', at) - at);
}
