// Map files: their paths, creation, and the move to the trash.
// Below: model.h. Above: workload.h, sample.h.
#pragma once

#include "lab/model.h"

namespace lab {

uuid new_uuid(model* m);
// Adds an empty map of the sample's size to the volume. Returns its number.
size_t add_map(model* m, size_t volume_index, map_role role);
void move_to_trash(lun_map* map);
// Under the map's number: a LUN's name may be in the trash already.
void move_to_numbered_trash(model* m, size_t map_index);

}  // namespace lab
