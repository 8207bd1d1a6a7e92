// Volumes and data files beside an inventory. Below: state.h, known/inventory.h. Above: compare.h.
#pragma once

#include "ctl/check/state.h"

// False: volumes with tables are here, and the inventory knows none of them.
bool is_of_this_server(const check_state& state, const inventory& known);
// The volume of the inventory as it is now: the one at its place, or where its uuid is. Null: it is
// not here.
volume_check* volume_now(check_state* state, const known_volume& known);
// Adds S06 and S08, and S05 for a volume in the place of another one.
void compare_volumes(check_state* state, const inventory& known);
