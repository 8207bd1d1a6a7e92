// Every change of the model's metadata goes through here, so that it is known which writes belong
// to which commit and what a datum held before. Below: model.h.
#pragma once

#include "lab/model.h"

namespace lab {

// Each notes the write under the commit that is being made.
void set_tbl(model* m, size_t volume_index, uint64_t lpa, uint16_t word);
void set_fri(model* m, size_t volume_index, uint64_t group, const fri_entry& entry);
void set_fri_counters(model* m, size_t volume_index, uint64_t free_count, uint64_t group_head);
void set_map(model* m, size_t map_index, uint64_t lea, uint64_t word);
void set_mapped_count(model* m, size_t map_index, uint64_t count);

// Makes room for table and index entries of the groups up to this one; they are all zero.
void reach_group(volume* vol, uint64_t group);

// Stores a value without noting it.
void put_datum(model* m, const datum& where, const datum_value& value);
// The newest commit never was: its writes are undone and forgotten.
void undo_writes(model* m, uint64_t commit);
// Forgets the writes that have left the budget: they are durable.
void settle_writes(model* m);

}  // namespace lab
