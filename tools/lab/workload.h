// The service at work: transactions of every kind, one kind or several mixed in one, and what it
// does between them: maps appear, go to the trash, and are removed.
// Below: history.h, file_records.h. Above: sample.h.
#pragma once

#include "lab/transaction.h"

namespace lab {

constexpr uint64_t NO_RUSH = UINT64_MAX;

// One transaction, applied to the model, of at least one block. It is not committed.
transaction next_transaction(model* m);
// What stands between two transactions. Never more than a rename, a creation or a removal each.
void keep_house(model* m);

}  // namespace lab
