// The locks that a command takes, against a second run, before it writes. Below: run_lock.h, the
// option record, the platform. Above: the commands.
#pragma once

struct run_lock;

// Bits; each names directories, taken from the options.
enum command_locks : unsigned {
    LOCKS_NOTHING = 0,  // it only reads, or takes its locks itself
    LOCKS_VOLUME = 1,   // --volpath
    LOCKS_TABLES = 2,   // the volumes of --fripath and --tblpath
    LOCKS_MAP = 4,      // the volume of --mappath
    LOCKS_REPAIR = 8,   // the same, if --repair is given
    LOCKS_ALL_VOLUMES = 16,
    LOCKS_JOURNAL = 32,  // the directory of --jnlpath, or the configured one
};

// Adds them to `lock`. 0, or -1, logged: the caller writes nothing, and releases.
int take_command_locks(run_lock* lock, unsigned what);
