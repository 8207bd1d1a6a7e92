// The offset of a datum in its file, and the entries of an index and a table, decoded from their
// bytes. Below: the format headers. Above: damage and the check of rebuilt volumes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "jnl/jnl_format.h"

namespace lab {

uint64_t offset_of_node(uint64_t node);      // of a header, constant nodes first
uint64_t offset_of_field(size_t in_memory);  // of a header, by its offset in the header's record
uint64_t offset_of_tbl(uint64_t lpa);
uint64_t offset_of_fri(uint64_t group);
uint64_t offset_of_map(uint64_t lea);

// Groups 0 to fri.size() - 1 and their extents, as they are on the disk, unchecked.
struct pool_entries {
    uint64_t group_head;
    std::vector<fri_entry> fri;
    std::vector<uint16_t> tbl;
};
// The length of each file that holds this many groups, rounded up to the end of a block. If the
// groups fill whole blocks of the index, their extents also fill whole blocks of the table.
uint64_t index_length(uint64_t groups);
uint64_t table_length(uint64_t groups);
// `index` and `table` must hold at least this many groups.
pool_entries decode_pool(const std::vector<uint8_t>& index, const std::vector<uint8_t>& table,
                         uint64_t groups);

}  // namespace lab
