// A process whose syncs fail. Below: the system. Above: sandbox.h.
#pragma once

// From now on every fsync, fdatasync and syncfs of this process, and of the programs that it
// executes and starts, fails with EIO. Returns false if the system does not accept the filter.
bool fail_every_sync();
