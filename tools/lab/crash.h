// The power failure: how much of the newest transaction's record is in the ring, and which metadata
// writes inside the budget are missing. Below: transaction.h, metadata.h. Above: sample.h.
#pragma once

#include <string>

#include "lab/transaction.h"

namespace lab {

crash_plan plan_crash(uint64_t seed);
// Tears the newest transaction according to the plan: some of its blocks are in the ring, the
// header may or may not name it, and none of its metadata is written.
void tear(model* m, transaction* t);
// Changes the metadata from the expected state to the state on the disk.
void lose_writes(model* m);
// Returns why the search for the last complete transaction fails on this journal; "" if it
// succeeds.
std::string reason_to_refuse(const model& m);
// Describes the crash for the user of the lab.
std::string crash_in_words(const model& m);

}  // namespace lab
