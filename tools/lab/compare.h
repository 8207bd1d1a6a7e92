// Compares a file on the disk with what it ought to hold. Below: image.h, bytes.h,
// difference.h.
#pragma once

#include <string>

#include "lab/image.h"

namespace lab {

// The first difference in words; empty: none. An entry block that holds nothing may have been
// written meanwhile or not.
std::string compare_file(const std::string& directory, const file_image& expected);

}  // namespace lab
