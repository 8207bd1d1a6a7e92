// Free lists. Extents are taken from the free list of the first group on the list of groups, at its
// head, and returned to the head of their own group's list. Below: metadata.h.
#pragma once

#include "lab/model.h"

namespace lab {

constexpr uint16_t TBL_KEPT_BITS = 0x6000;  // reserved; freeing keeps them, taking clears them

uint32_t references(const volume& vol, uint64_t lpa);
bool initialised(const volume& vol, uint64_t group);
// The first group that was never initialised: where the list of groups ends.
uint64_t end_group(const volume& vol);

// Number of free extents in initialised groups.
uint64_t spare_extents(const volume& vol);

// Links every extent of the group in ascending order, sets the init bit, and links the group to the
// next one. `group` must be the end group.
void initialise_group(model* m, size_t volume_index, uint64_t group);

// Takes up to `most` extents (at least 1), all from the group at the head of the list of groups,
// and initialises that group first if necessary. Each extent gets one reference.
std::vector<uint64_t> take_extents(model* m, size_t volume_index, uint64_t most);

void add_reference(model* m, size_t volume_index, uint64_t lpa);
// Drops one of two or more references.
void drop_reference(model* m, size_t volume_index, uint64_t lpa);
// Drops the last reference: the extent moves to the head of its group's free list, and a group that
// was full moves to the head of the list of groups.
void free_extent(model* m, size_t volume_index, uint64_t lpa);

}  // namespace lab
