// Compares a file on the disk with what it ought to hold. Below: image.h, bytes.h,
// difference.h.
#pragma once

#include <string>

#include "lab/image.h"

namespace lab {

// The first difference in words; empty: none. An entry block that holds nothing may have been
// written meanwhile or not.
std::string compare_file(const std::string& directory, const file_image& expected);
// Only the size, and that nothing stands outside the chunks; what they hold is not looked at.
std::string compare_frame(const std::string& directory, const file_image& expected);
// As compare_file for the bytes of one chunk; `found` has as many. Without the file's name.
std::string compare_chunk(const chunk& part, const std::vector<uint8_t>& found);

}  // namespace lab
