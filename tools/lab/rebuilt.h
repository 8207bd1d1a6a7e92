// The index and the table of a volume against the maps: for files that were built anew, of which
// only the order of the lists, the time they were made and what a rebuild does not carry over are
// free. Below: rebuilt_entries.h, compare.h. Above: verify.h.
#pragma once

#include <string>

#include "lab/model.h"

namespace lab {

// The first difference in words; empty: none.
std::string compare_rebuilt(const model& m, size_t volume_index, const std::string& directory);

}  // namespace lab
