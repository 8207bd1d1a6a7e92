// The kinds of system call that a campaign counts and makes fail, and their names in the
// description of a fault and in the notes of a run. Below: nothing. Above: the preload library, the
// driver.
#pragma once

#include <cstddef>
#include <cstring>

enum class call_kind : unsigned {
    open,
    read,
    write,
    seek,
    sync,
    syncfs,
    truncate,
    allocate,
    stat,
    fstat,
    statvfs,
    rename,
    link,
    unlink,
    mkdir,
    rmdir,
    opendir,
    readdir,
    realpath,
    readlink,
    flock,
    chmod,
    chown,
    spawn,
    count
};
constexpr size_t CALL_KINDS = static_cast<size_t>(call_kind::count);
constexpr const char* CALL_NAMES[] = {
    "open",    "read",    "write",    "seek",     "sync",  "syncfs", "truncate", "allocate",
    "stat",    "fstat",   "statvfs",  "rename",   "link",  "unlink", "mkdir",    "rmdir",
    "opendir", "readdir", "realpath", "readlink", "flock", "chmod",  "chown",    "spawn",
};
static_assert(sizeof CALL_NAMES / sizeof CALL_NAMES[0] == CALL_KINDS);

constexpr const char* call_name(call_kind kind) {
    return CALL_NAMES[static_cast<size_t>(kind)];
}

// call_kind::count for an unknown name.
inline call_kind call_of_name(const char* name) {
    size_t kind = 0;
    while (kind < CALL_KINDS && strcmp(CALL_NAMES[kind], name) != 0) {
        kind++;
    }
    return static_cast<call_kind>(kind);
}

// What the library reads from the environment of the program under test.
constexpr const char* PRELOAD_FAULT = "TARN_PRELOAD_FAULT";    // "KIND:N:ERRNO|short:once|forever"
constexpr const char* PRELOAD_NOTES = "TARN_PRELOAD_NOTES";    // file: "hit ..." and "calls ..."
constexpr const char* PRELOAD_LOG = "TARN_PRELOAD_LOG";        // file: the lines sent to the log
constexpr const char* PRELOAD_RECORD = "TARN_PRELOAD_RECORD";  // file: see recording.h
constexpr const char* PRELOAD_KILL = "TARN_PRELOAD_KILL";      // SIGKILL before operation N, from 1
