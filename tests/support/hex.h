// Bytes as text, sixteen a line, so that a failing comparison prints as a diff.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

inline std::string hex_of_bytes(const uint8_t* bytes, size_t len) {
    std::string text;
    for (size_t i = 0; i < len; i++) {
        char pair[8];
        snprintf(pair, sizeof pair, "%02x%c", bytes[i], i % 16 == 15 ? '\n' : ' ');
        text += pair;
    }
    return text;
}

inline std::string hex_of(const std::vector<uint8_t>& bytes) {
    return hex_of_bytes(bytes.data(), bytes.size());
}

template <class Record>
std::string hex_of(const Record& record) {
    return hex_of_bytes(reinterpret_cast<const uint8_t*>(&record), sizeof record);
}
