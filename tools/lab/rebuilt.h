// Compares a rebuilt index and table of a volume with the maps. Only the order of the lists, the
// creation times and the data that a rebuild does not carry over may differ.
// Below: rebuilt_entries.h, compare.h. Above: verify.h.
#pragma once

#include <string>

#include "lab/model.h"

namespace lab {

// Describes the first difference; returns "" if there is none.
std::string compare_rebuilt(const model& m, size_t volume_index, const std::string& directory);

}  // namespace lab
