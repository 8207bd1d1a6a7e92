// Fills the volumes before the first transaction: extents in use, shared and freed again, so that
// free lists are long and in mixed order and some group is nearly full. Below: extents.h, choose.h.
// Above: sample.h.
#pragma once

#include "lab/model.h"

namespace lab {

void fill_volume(model* m, size_t volume_index);

}  // namespace lab
