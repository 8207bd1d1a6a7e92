// Free lists: extents are taken from the head of the list of the group that heads the list of
// groups, and given back at the head of their own group's list. Below: metadata.h.
#pragma once

#include "lab/model.h"

namespace lab {

constexpr uint16_t TBL_KEPT_BITS = 0x6000;  // not the service's; freeing keeps them, taking clears

uint32_t references(const volume& vol, uint64_t lpa);
bool initialised(const volume& vol, uint64_t group);
// The first group that was never initialised: where the list of groups ends.
uint64_t end_group(const volume& vol);

// Free extents of the groups that are initialised.
uint64_t spare_extents(const volume& vol);

// Links every extent of the group in ascending order and sets the init bit; the next group follows
// it in the list of groups. The group is the end group.
void initialise_group(model* m, size_t volume_index, uint64_t group);

// Takes up to `most` extents (1 or more), all from the group at the head of the list of groups,
// which is initialised first when it has to be. Each is in use with one reference.
std::vector<uint64_t> take_extents(model* m, size_t volume_index, uint64_t most);

void add_reference(model* m, size_t volume_index, uint64_t lpa);
// One of two or more references goes.
void drop_reference(model* m, size_t volume_index, uint64_t lpa);
// The last reference goes: the extent heads its group's free list, and a group that was full heads
// the list of groups.
void free_extent(model* m, size_t volume_index, uint64_t lpa);

}  // namespace lab
