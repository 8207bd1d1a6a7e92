// A difference in an operator's words: which entry, which field, what was expected, what was found.
// Below: image.h.
#pragma once

#include <string>

#include "lab/image.h"

namespace lab {

// Both hold the part's bytes; they differ first at byte `at` of the part.
std::string describe_difference(const chunk& expected, const std::vector<uint8_t>& found,
                                size_t at);

}  // namespace lab
