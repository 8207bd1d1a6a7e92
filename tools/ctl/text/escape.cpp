#include "ctl/text/escape.h"

#include <cstdio>
#include <cstring>

static bool is_continuation(char byte) {
    return (static_cast<uint8_t>(byte) & 0xC0) == 0x80;
}

// How many bytes a character has whose first byte is `lead`; 0: no character begins so.
static size_t length_of(uint8_t lead) {
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return 2;
    }
    if ((lead & 0xF0) == 0xE0) {
        return 3;
    }
    return lead >= 0xF0 && lead <= 0xF4 ? 4 : 0;
}

// Not written in more bytes than it needs, no half of a surrogate pair, not past the last
// character.
static bool is_lawful(uint32_t code, size_t bytes) {
    if (bytes == 3) {
        return code >= 0x800 && (code < 0xD800 || code > 0xDFFF);
    }
    return bytes != 4 || (code >= 0x10000 && code <= 0x10FFFF);
}

utf8_character utf8_first(std::string_view text) {
    constexpr utf8_character NONE = {0, 0};
    if (text.empty()) {
        return NONE;
    }
    const auto lead = static_cast<uint8_t>(text[0]);
    const size_t bytes = length_of(lead);
    if (bytes == 0 || bytes > text.size()) {
        return NONE;
    }
    uint32_t code = bytes == 1 ? lead : lead & (0x7FU >> bytes);
    for (size_t i = 1; i < bytes; i++) {
        if (!is_continuation(text[i])) {
            return NONE;
        }
        code = code << 6 | (static_cast<uint8_t>(text[i]) & 0x3FU);
    }
    return is_lawful(code, bytes) ? utf8_character{code, bytes} : NONE;
}

// Characters that are not seen, end a line, or turn the order of a line around.
static bool is_hidden(uint32_t code) {
    return (code >= 0x80 && code < 0xA0) || code == 0xAD || code == 0x61C ||
           (code >= 0x200B && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E) ||
           (code >= 0x2060 && code <= 0x206F) || code == 0xFEFF;
}

static std::string byte_escape(char byte) {
    char text[8];
    snprintf(text, sizeof text, "\\x%02x", static_cast<unsigned>(static_cast<uint8_t>(byte)));
    return text;
}

static std::string control_escape(char control) {
    switch (control) {
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        default:
            return byte_escape(control);
    }
}

static bool is_control(char byte) {
    return static_cast<uint8_t>(byte) < 0x20 || byte == 0x7F;
}

static std::string hidden_escape(uint32_t code) {
    char text[16];
    snprintf(text, sizeof text, "\\u{%04x}", code);
    return text;
}

std::string shown(std::string_view name) {
    std::string text;
    while (!name.empty()) {
        const utf8_character first = utf8_first(name);
        const size_t bytes = first.bytes == 0 ? 1 : first.bytes;
        if (first.bytes == 0) {
            text += byte_escape(name[0]);
        } else if (is_control(name[0])) {
            text += control_escape(name[0]);
        } else if (is_hidden(first.code)) {
            text += hidden_escape(first.code);
        } else {
            text += name[0] == '\\' ? "\\\\" : name.substr(0, bytes);
        }
        name.remove_prefix(bytes);
    }
    return text;
}

static bool is_plain(char byte) {
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
           (byte >= '0' && byte <= '9') || (byte != '\0' && strchr("@/_.,+:=-", byte) != nullptr);
}

// $'...' keeps every byte, and shows each that is not plain ASCII.
static std::string dollar_quoted(std::string_view word) {
    std::string text = "$'";
    for (const char byte : word) {
        if (byte == '\'' || byte == '\\') {
            text += '\\';
            text += byte;
        } else if (is_control(byte) || static_cast<uint8_t>(byte) >= 0x80) {
            text += byte_escape(byte);
        } else {
            text += byte;
        }
    }
    return text + "'";
}

std::string shell_word(std::string_view word) {
    bool plain = !word.empty();
    bool simple = true;  // single quotes do
    for (const char byte : word) {
        plain = plain && is_plain(byte);
        simple = simple && byte != '\'' && byte != '\\' && !is_control(byte) &&
                 static_cast<uint8_t>(byte) < 0x80;
    }
    if (plain) {
        return std::string(word);
    }
    return simple ? "'" + std::string(word) + "'" : dollar_quoted(word);
}

size_t columns_of(std::string_view text) {
    size_t columns = 0;
    for (const char byte : text) {
        columns += is_continuation(byte) ? 0 : 1;
    }
    return columns;
}
