// Checks the entries of an index and a table that were rebuilt from the maps: every reference must
// be counted, and every list and count must be exact. Lists may be in any order. Below: model.h,
// pool_entries.h. Above: rebuilt.h.
#pragma once

#include <string>
#include <vector>

#include "lab/model.h"
#include "lab/pool_entries.h"

namespace lab {

struct rebuilt_pool {
    std::string index;  // paths, for the description of a difference
    std::string table;
    pool_entries found;
    std::vector<uint32_t> references;  // from the maps to each extent of found.tbl
};

// Counts the references from the volume's maps to each extent. The maps must name no extent outside
// the first `groups` groups.
std::vector<uint32_t> count_references(const model& m, size_t volume_index, uint64_t groups);
// One more than the highest initialised group.
uint64_t limit_of(const pool_entries& pool);
// Describes the first difference; returns "" if there is none. Checksums and reserved bits are not
// checked.
std::string check_rebuilt_entries(const rebuilt_pool& pool);

}  // namespace lab
