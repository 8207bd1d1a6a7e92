// Names from a disk, made fit to be shown: any bytes may stand in a name. Above: whoever prints.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The character that `text` begins with, and how many bytes it has. No bytes: `text` is empty or
// does not begin with valid UTF-8.
struct utf8_character {
    uint32_t code;
    size_t bytes;
};
utf8_character utf8_first(std::string_view text);

// For a line of text: control characters, line ends, invisible marks that reorder a line, and bytes
// that are no UTF-8 appear as \n, \xHH or \u{HHHH}; a backslash is doubled.
std::string shown(std::string_view name);

// One word of a command line for bash, quoted where it has to be.
std::string shell_word(std::string_view word);

// How many columns a text takes: characters, not bytes.
size_t columns_of(std::string_view text);
