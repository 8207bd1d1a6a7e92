#include "ctl/json_line.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "ctl/text/escape.h"

constexpr uint64_t EXACT_MAX = uint64_t{1} << 53;

static std::string unit_escape(unsigned unit) {
    char text[8];
    snprintf(text, sizeof text, "\\u%04x", unit & 0xFFFFU);
    return text;
}

static void add_string(std::string* line, std::string_view text) {
    *line += '"';
    while (!text.empty()) {
        const utf8_character first = utf8_first(text);
        const auto byte = static_cast<uint8_t>(text[0]);
        if (first.bytes == 0) {
            *line += unit_escape(0xDC00U + byte);
        } else if (byte == '"' || byte == '\\') {
            *line += {'\\', text[0]};
        } else if (byte < 0x20 || byte == 0x7F) {
            *line += unit_escape(byte);
        } else {
            *line += text.substr(0, first.bytes);
        }
        text.remove_prefix(first.bytes == 0 ? 1 : first.bytes);
    }
    *line += '"';
}

// The library's own writer refuses strings that are no UTF-8. Records are three levels deep.
// NOLINTNEXTLINE(misc-no-recursion)
static void add_value(std::string* line, const json_record& value) {
    if (value.is_string()) {
        add_string(line, value.get_ref<const std::string&>());
        return;
    }
    if (!value.is_structured()) {
        *line += value.dump();
        return;
    }
    *line += value.is_array() ? '[' : '{';
    bool is_first = true;
    for (const auto& item : value.items()) {
        *line += is_first ? "" : ",";
        is_first = false;
        if (value.is_object()) {
            add_string(line, item.key());
            *line += ':';
        }
        add_value(line, item.value());
    }
    *line += value.is_array() ? ']' : '}';
}

std::string json_line(const json_record& record) {
    std::string line;
    add_value(&line, record);
    return line + "\n";
}

json_record json_number(uint64_t number) {
    return number <= EXACT_MAX ? json_record(number) : json_record(std::to_string(number));
}

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const size_t bytes = utf8_first(text).bytes;
        if (bytes == 0) {
            return false;
        }
        text.remove_prefix(bytes);
    }
    return true;
}

std::string hex_of_bytes(std::string_view text) {
    std::string hex;
    for (const char byte : text) {
        char digits[4];
        snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(static_cast<uint8_t>(byte)));
        hex += digits;
    }
    return hex;
}
