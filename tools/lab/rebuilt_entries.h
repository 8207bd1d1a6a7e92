// What must be true of the entries of an index and a table that were built anew out of the maps:
// every reference is counted, and every list and count is exact, in whatever order it is linked.
// Below: model.h, pool_entries.h. Above: rebuilt.h.
#pragma once

#include <string>
#include <vector>

#include "lab/model.h"
#include "lab/pool_entries.h"

namespace lab {

struct rebuilt_pool {
    std::string index;  // paths, for the words of a difference
    std::string table;
    pool_entries found;
    std::vector<uint32_t> references;  // that the maps hold to each extent of found.tbl
};

// What the volume's maps hold to each extent of the first so many groups, which are all that they
// name.
std::vector<uint32_t> count_references(const model& m, size_t volume_index, uint64_t groups);
// One more than the highest initialised group.
uint64_t limit_of(const pool_entries& pool);
// The first difference in words; empty: none. The entries' checksums and bits that are not the
// service's are not looked at.
std::string check_rebuilt_entries(const rebuilt_pool& pool);

}  // namespace lab
