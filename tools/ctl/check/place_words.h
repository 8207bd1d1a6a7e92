// Where a finding lies, in words: LUNs and bytes first, extents and blocks after them.
// Below: finding.h, escape.h. Above: the printers.
#pragma once

#include <string>

#include "view/finding.h"

// "3 MiB", "7.9 GiB", "512 bytes". Digits after the first decimal are cut off.
std::string size_words(uint64_t bytes);
// "12 more findings", "1 more finding".
std::string count_words(uint64_t count, const char* thing);
// The product, or the largest number if it does not fit.
uint64_t bytes_of(uint64_t extents, uint64_t extent_size);

// Whose data: "LUN_7, bytes 0 to 1048575 (1 MiB at 0 bytes)". Without owners the file or the volume
// and the place in it.
std::string subject_words(const finding& of);
// "Extents 8-9 of /volume1, group 0."; empty if subject_words says it.
std::string place_sentence(const finding& of);
