#include "lab/pool_entries.h"

#include <cstddef>
#include <cstring>

namespace lab {

uint64_t offset_of_node(uint64_t node) {
    constexpr uint64_t CONST_NODES = 2;  // of every kind of file
    return (node < CONST_NODES ? node : META_VAR_NODE_BASE + node - CONST_NODES) * META_NODE_SIZE;
}

uint64_t offset_of_field(size_t in_memory) {
    return offset_of_node(in_memory / META_NODE_SIZE) + in_memory % META_NODE_SIZE;
}

uint64_t offset_of_tbl(uint64_t lpa) {
    return METADATA_DATA_OFFSET + tbl_block_of(lpa) * DATA_NODE_SIZE + tbl_byte_in_block(lpa);
}

uint64_t offset_of_fri(uint64_t group) {
    return METADATA_DATA_OFFSET + fri_block_of(group) * DATA_NODE_SIZE + fri_byte_in_block(group);
}

uint64_t offset_of_map(uint64_t lea) {
    return METADATA_DATA_OFFSET + map_node_of(lea) * DATA_NODE_SIZE + map_byte_in_node(lea);
}

static_assert(FRI_BLOCK_ENTRIES * TBL_GROUP_ENTRIES % TBL_BLOCK_ENTRIES == 0);

static uint64_t length_of(uint64_t entries, uint64_t entries_a_block) {
    const uint64_t blocks = (entries + entries_a_block - 1) / entries_a_block;
    return METADATA_DATA_OFFSET + blocks * DATA_NODE_SIZE;
}

uint64_t index_length(uint64_t groups) {
    return length_of(groups, FRI_BLOCK_ENTRIES);
}

uint64_t table_length(uint64_t groups) {
    return length_of(tbl_lpa_of(groups, 0), TBL_BLOCK_ENTRIES);
}

pool_entries decode_pool(const std::vector<uint8_t>& index, const std::vector<uint8_t>& table,
                         uint64_t groups) {
    pool_entries pool = {0, {}, {}};
    pool.fri.resize(groups);
    pool.tbl.resize(groups * TBL_GROUP_ENTRIES);
    constexpr size_t IN_VAR_NODE = offsetof(fri_header, fri_group_head) - 2 * META_NODE_SIZE;
    memcpy(&pool.group_head, &index[offset_of_node(2) + IN_VAR_NODE], sizeof pool.group_head);
    for (uint64_t group = 0; group < groups; group++) {
        memcpy(&pool.fri[group], &index[offset_of_fri(group)], sizeof(fri_entry));
    }
    for (uint64_t lpa = 0; lpa < pool.tbl.size(); lpa++) {
        memcpy(&pool.tbl[lpa], &table[offset_of_tbl(lpa)], sizeof(tbl_entry));
    }
    return pool;
}

}  // namespace lab
