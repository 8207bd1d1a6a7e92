// Makes a whole sample from its parameters. The same parameters give the same bytes, so the
// expected contents can be computed again at any time. Below: fill.h, workload.h, crash.h. Above:
// the commands.
#pragma once

#include "lab/model.h"
#include "lab/progress.h"

namespace lab {

// The expected state after recovery, with the journal as it is on the disk. lose_writes removes the
// writes that the crash kept from the disk.
model make_sample(const parameters& sample, progress* bar);
// The same sample after only its first `transactions` transactions, at most as many as it has. A
// map has the same number in both.
model make_past(const parameters& sample, uint64_t transactions);
// Number of the sample's complete transactions that are its own, not those of a run.
uint64_t commits_of_make(const model& m);

}  // namespace lab
