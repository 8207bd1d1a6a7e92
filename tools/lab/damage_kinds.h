// The kinds of damage, as the table in damage.cpp names them; the contract is damage_function's.
// Below: damage_site.h. Above: damage.h.
#pragma once

#include "lab/damage_site.h"

namespace lab {

// damage_bits.cpp: one bit, and the checksum above it stays.
std::string flip_index_header(damage_site* site);
std::string flip_table_header(damage_site* site);
std::string flip_map_header(damage_site* site);
std::string flip_index_block(damage_site* site);
std::string flip_table_block(damage_site* site);
std::string flip_map_node(damage_site* site);
std::string flip_pool_table(damage_site* site);
std::string flip_journal_block(damage_site* site);

// damage_files.cpp: whole files.
std::string lose_index(damage_site* site);
std::string lose_table(damage_site* site);
std::string lose_both(damage_site* site);
std::string drown_table(damage_site* site);
std::string truncate_map(damage_site* site);
std::string lose_map(damage_site* site);
std::string cut_data_file(damage_site* site);

// damage_misplaced.cpp: a file that is sound in itself and does not belong where it stands.
std::string swap_maps(damage_site* site);
std::string take_old_map(damage_site* site);
std::string take_foreign_journal(damage_site* site);

// damage_values.cpp: one wrong number under a right checksum.
std::string change_references(damage_site* site);
std::string change_free_count(damage_site* site);
std::string change_mapped_count(damage_site* site);

// damage_lists.cpp: one wrong link or length under a right checksum.
std::string loop_list(damage_site* site);
std::string lead_list_into_used(damage_site* site);
std::string cut_list_tail(damage_site* site);
std::string change_list_count(damage_site* site);
std::string loop_group_list(damage_site* site);

}  // namespace lab
