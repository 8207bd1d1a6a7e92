// Compares a file on the disk with its expected contents. Below: image.h, bytes.h,
// difference.h.
#pragma once

#include <string>

#include "lab/image.h"

namespace lab {

// Describes the first difference; returns "" if there is none. An empty entry block may have been
// written in the meantime or not.
std::string compare_file(const std::string& directory, const file_image& expected);
// Checks only the size, and that everything outside the chunks is zero; ignores their contents.
std::string compare_frame(const std::string& directory, const file_image& expected);
// As compare_file, for the bytes of one chunk. `found` has the chunk's length. The text has no file
// name.
std::string compare_chunk(const chunk& part, const std::vector<uint8_t>& found);

}  // namespace lab
