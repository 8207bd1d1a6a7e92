// What the volumes hold before the first transaction: extents in use, shared and given back, so
// that free lists are long and tangled and some group is about to become full.
// Below: extents.h, choose.h. Above: sample.h.
#pragma once

#include "lab/model.h"

namespace lab {

void fill_volume(model* m, size_t volume_index);

}  // namespace lab
