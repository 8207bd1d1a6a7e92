// One writing run at a time: a command that writes into a volume holds an advisory lock on the
// volume's root directory, one that works with the journal also on the journal's directory. No file
// is created, and the system releases the locks when the process ends.
// Below: descriptor.h, the platform's list of volumes. Above: the commands, start-up replay.
#pragma once

#include <cstdint>

#include "store/descriptor.h"

struct run_lock_dir {
    int fd;  // open for reading while the lock is held
    io_file_id id;
};

// The locked directories, each once. Zero at start; run_lock_release at the end.
struct run_lock {
    run_lock_dir* dirs;
    uint32_t count;
    uint32_t room;
};

// Each adds directories to the lock. Returns 0 even if a directory does not exist (the command
// reports that) or the file system has no locks (logged); -1, logged, if another run holds one of
// them, or it cannot be locked for another reason: nothing may be written then.

// Stores the open descriptor through `fd`, unless `fd` is null (0: there is no such directory).
int run_lock_add(run_lock* lock, const char* directory, int* fd);
// The volumes that carry LUN metadata, of all that the platform lists.
int run_lock_all_volumes(run_lock* lock);
// The volume that holds the file at `path`, which need not exist; none for a path outside volumes.
int run_lock_file(run_lock* lock, const char* path);
// The directory of the journal at `path`; none for an empty path.
int run_lock_journal(run_lock* lock, const char* path, int* fd);

void run_lock_release(run_lock* lock);

// Releases its locks at the end of its scope.
struct run_lock_scope {
    run_lock_scope() = default;
    run_lock_scope(const run_lock_scope&) = delete;
    run_lock_scope& operator=(const run_lock_scope&) = delete;
    ~run_lock_scope() { run_lock_release(&lock); }
    run_lock lock = {};
};
