// A process whose syncs fail. Below: the system. Above: sandbox.h.
#pragma once

// From now on every fsync, fdatasync and syncfs of this process, and of the programs that it
// becomes and starts, fails with EIO. False: the system does not take the filter.
bool fail_every_sync();
