// A whole sample from its parameters: the same numbers give the same bytes, so that the truth can
// be had again at any time. Below: fill.h, workload.h, crash.h. Above: the commands.
#pragma once

#include "lab/model.h"
#include "lab/progress.h"

namespace lab {

// Everything as it ought to be after recovery, the journal as it lies on the disk. What the crash
// kept from the disk is told by lose_writes.
model make_sample(const parameters& sample, progress* bar);
// The same volumes and maps as they were after the first `transactions` of the sample's own,
// which has as many at least. A map has the same number then and later.
model make_past(const parameters& sample, uint64_t transactions);

}  // namespace lab
