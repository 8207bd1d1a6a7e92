// The printed line of one changed value, and the change of one entry of a map.
// Below: damage_site.h. Above: the kinds of damage.
#pragma once

#include "lab/damage_site.h"

namespace lab {

// "PATH: byte N, WHAT: OLD -> NEW", the values decimal, or with 16 hexadecimal digits.
std::string change_line(const std::string& path, uint64_t offset, const std::string& what,
                        uint64_t from, uint64_t to);
std::string word_line(const std::string& path, uint64_t offset, const std::string& what,
                      uint64_t from, uint64_t to);

// Writes the entry with a right checksum and returns its line. Returns "" if the entry cannot be
// accessed or has that value already, and prints the reason.
std::string put_map_word(const damage_site& site, const std::string& path, uint64_t lea,
                         uint64_t to);

}  // namespace lab
