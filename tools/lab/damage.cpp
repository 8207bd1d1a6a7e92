#include "lab/damage.h"

#include "lab/damage_kinds.h"

namespace lab {

constexpr damage_kind DAMAGE_KINDS[] = {
    {"index-header-bit", "a flipped bit in a header node of the index", flip_index_header},
    {"table-header-bit", "a flipped bit in a header node of the table", flip_table_header},
    {"map-header-bit", "a flipped bit in a header node of a map", flip_map_header},
    {"index-block-bit", "a flipped bit in the head or count of a listed group's free list",
     flip_index_block},
    {"table-block-bit", "a flipped bit in the used bit or count of a used extent",
     flip_table_block},
    {"map-node-bit", "a flipped bit in a data node with a mapped entry", flip_map_node},
    {"index-lost", "EP_FRI is gone", lose_index},
    {"table-lost", "EP_TBL is gone", lose_table},
    {"both-lost", "EP_FRI and EP_TBL are gone", lose_both},
    {"table-noise", "the table's header is intact, every entry block is noise", overwrite_table},
    {"reference-count", "the reference count of an extent is off by one", change_references},
    {"list-loop", "a group's free list has a loop", loop_list},
    {"list-used", "a group's free list runs into a used entry", link_list_to_used},
    {"list-tail", "a group's free list has lost its tail", cut_list_tail},
    {"list-count", "the index has a wrong free count for a group", change_list_count},
    {"group-loop", "the list of groups has a loop", loop_group_list},
    {"free-count", "the index's header has a wrong free count", change_free_count},
    {"mapped-count", "a map's header has a wrong mapped count", change_mapped_count},
    {"pool-table", "a flipped bit in the pool table of a map", flip_pool_table},
    {"map-truncated", "a map ends before its last mapped entry", truncate_map},
    {"map-lost", "a LUN's, a snapshot's or a trash map with mapped entries is gone", lose_map},
    {"maps-swapped", "two LUN maps have each other's names", swap_maps},
    {"map-old", "a map holds its contents of an earlier time", restore_old_map},
    {"data-file-cut", "the last data file in use ends before an extent in use", cut_data_file},
    {"journal-foreign", "the journal is that of another server", replace_journal},
    {"journal-block", "a recent block of the journal has a wrong checksum", flip_journal_block},
    {"alias", "an entry of a LUN map names another LUN's extent", alias_extent},
    {"dangling", "a mapped entry names an extent that the table calls free", dangle_entry},
    {"leak", "an extent is in use and no map names it", leak_extent},
    {"far-lpa", "a mapped entry names an extent past the data files", point_far_away},
    {"uuid-twice", "a map has the uuid of another one", repeat_uuid},
    {"pool-uuid", "a mapped entry's row of the pool table names no volume", rename_pool},
    {"foreign-pool-row", "a mapped entry uses a row that the pool table does not have",
     use_foreign_row},
    {"entry-behind-end", "a mapped entry behind the last entry of a map", map_behind_end},
    {"unsummed-node", "a data node with a mapped entry has no checksum", lose_checksum},
    {"index-open-end", "the list of groups goes on after its last group", open_group_list},
    {"orphan-map", "a new map lies where nobody looks for maps", add_orphan_map},
    {"data-file-gap", "a data file in the middle of the numbers is missing", skip_data_file},
    {"two-bits", "two flipped bits in a block of table, index or map", flip_two_bits},
    {"three-entries", "one to three entries of a data node are garbled", garble_entries},
    {"torn-node", "the last part of a data node is old or zero", tear_node},
    {"journal-block-in-window", "a flipped bit in the journal's window, status abnormal",
     flip_in_window},
};

const damage_kind* find_damage(const std::string& word) {
    for (const damage_kind& kind : DAMAGE_KINDS) {
        if (word == kind.word) {
            return &kind;
        }
    }
    return nullptr;
}

std::string damage_words() {
    constexpr size_t COLUMN = 26;
    std::string text = "\nKinds of damage:\n";
    for (const damage_kind& kind : DAMAGE_KINDS) {
        std::string line = std::string("  ") + kind.word;
        line.resize(COLUMN, ' ');
        text += line + kind.meaning + "\n";
    }
    return text;
}

}  // namespace lab
