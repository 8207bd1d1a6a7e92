// The workload of a service that ages its volumes: LUNs are deleted and recreated under the same
// name, trimmed, written and snapshotted. A deleted map is removed as soon as it is empty.
// Below: workload.h, crash.h. Above: continued.h.
#pragma once

#include "lab/model.h"
#include "lab/run_notes.h"

namespace lab {

// Turns the model of a cleanly shut down sample into its expected state after the notes' number of
// transactions and a crash, or a clean shutdown. lose_writes removes what the crash kept from the
// disk.
void age_model(model* m, const run_notes& notes);
// Number of removed maps that the newest records, which replay repeats, still name.
uint64_t removed_but_named(const model& m);

}  // namespace lab
