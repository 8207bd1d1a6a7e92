// Describes a difference to the user: the entry, the field, the expected value and the value found.
// Below: image.h.
#pragma once

#include <string>

#include "lab/image.h"

namespace lab {

// `expected` and `found` have the same length and first differ at byte `at`.
std::string describe_difference(const chunk& expected, const std::vector<uint8_t>& found,
                                size_t at);

}  // namespace lab
