// The kinds of damage in the table of damage.cpp. The contract is that of damage_function.
// Below: damage_site.h. Above: damage.h.
#pragma once

#include "lab/damage_site.h"

namespace lab {

// damage_bits.cpp: flip one bit, and keep the checksum.
std::string flip_index_header(damage_site* site);
std::string flip_table_header(damage_site* site);
std::string flip_map_header(damage_site* site);
std::string flip_index_block(damage_site* site);
std::string flip_table_block(damage_site* site);
std::string flip_map_node(damage_site* site);
std::string flip_pool_table(damage_site* site);
std::string flip_journal_block(damage_site* site);
std::string flip_in_window(damage_site* site);  // and sets the status "abnormal"

// damage_files.cpp: remove, overwrite or cut whole files.
std::string lose_index(damage_site* site);
std::string lose_table(damage_site* site);
std::string lose_both(damage_site* site);
std::string overwrite_table(damage_site* site);
std::string truncate_map(damage_site* site);
std::string lose_map(damage_site* site);
std::string cut_data_file(damage_site* site);
std::string skip_data_file(damage_site* site);

// damage_misplaced.cpp: put a sound file where it does not belong.
std::string swap_maps(damage_site* site);
std::string restore_old_map(damage_site* site);
std::string replace_journal(damage_site* site);
std::string add_orphan_map(damage_site* site);

// damage_values.cpp: write one wrong number, with a right checksum.
std::string change_references(damage_site* site);
std::string change_free_count(damage_site* site);
std::string change_mapped_count(damage_site* site);

// damage_lists.cpp: write one wrong link or length, with a right checksum.
std::string loop_list(damage_site* site);
std::string link_list_to_used(damage_site* site);
std::string cut_list_tail(damage_site* site);
std::string change_list_count(damage_site* site);
std::string loop_group_list(damage_site* site);
std::string open_group_list(damage_site* site);
std::string leak_extent(damage_site* site);  // takes it from its list, and counts it

// damage_references.cpp: point an entry of a map elsewhere, with a right checksum.
std::string alias_extent(damage_site* site);
std::string dangle_entry(damage_site* site);
std::string point_far_away(damage_site* site);

// damage_maps.cpp: identities, pool rows and ends of maps, with right checksums.
std::string repeat_uuid(damage_site* site);
std::string rename_pool(damage_site* site);
std::string use_foreign_row(damage_site* site);
std::string map_behind_end(damage_site* site);
std::string lose_checksum(damage_site* site);

// damage_blocks.cpp: change a block, and keep the checksum.
std::string flip_two_bits(damage_site* site);
std::string garble_entries(damage_site* site);
std::string tear_node(damage_site* site);

}  // namespace lab
