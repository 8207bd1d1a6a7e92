// The workload of the service: transactions with one or several kinds of changes, and between them
// maps that are created, moved to the trash, and removed.
// Below: history.h, file_records.h. Above: sample.h.
#pragma once

#include "lab/transaction.h"

namespace lab {

constexpr uint64_t NO_BURST = UINT64_MAX;

// Makes a transaction of at least one block and applies it to the model, without committing it.
transaction next_transaction(model* m);
// Called between two transactions: creates, renames or removes one map, or does nothing.
void change_maps(model* m);

}  // namespace lab
