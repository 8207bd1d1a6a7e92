// Every change of the model's metadata goes through these functions, which record the commit and
// the old value of each write. Below: model.h.
#pragma once

#include "lab/model.h"

namespace lab {

// Each records the write as part of the current commit.
void set_tbl(model* m, size_t volume_index, uint64_t lpa, uint16_t word);
void set_fri(model* m, size_t volume_index, uint64_t group, const fri_entry& entry);
void set_fri_counters(model* m, size_t volume_index, uint64_t free_count, uint64_t group_head);
void set_map(model* m, size_t map_index, uint64_t lea, uint64_t word);
void set_mapped_count(model* m, size_t map_index, uint64_t count);

// Extends table and index with zero entries, up to and including this group.
void reach_group(volume* vol, uint64_t group);

// Stores a value without recording the write.
void put_datum(model* m, const datum& where, const datum_value& value);
// Undoes the newest commit and forgets its writes.
void undo_writes(model* m, uint64_t commit);
// Forgets the writes that have left the budget: they are durable.
void settle_writes(model* m);

}  // namespace lab
