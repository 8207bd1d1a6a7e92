// The power failure: how much of the newest transaction's record stands, and which metadata writes
// inside the budget are missing. Below: transaction.h, metadata.h. Above: sample.h.
#pragma once

#include <string>

#include "lab/transaction.h"

namespace lab {

crash_plan plan_crash(uint64_t seed);
// The newest transaction is torn as the plan says: some of its blocks are in the ring, the header
// names it or does not, and nothing else of it ever happened.
void tear(model* m, transaction* t);
// Takes the metadata from what it ought to be to what the disk holds.
void lose_writes(model* m);
// Why the search for the last complete transaction gives up on this journal; empty: it does not.
std::string reason_to_refuse(const model& m);
// A few words for the operator of the lab.
std::string crash_in_words(const model& m);

}  // namespace lab
