// File primitives: create and open a metadata file, move a byte range at a 64-bit offset.
// Below: descriptor.h (the system calls). Above: nodes and blocks. Nothing here knows a format.
#pragma once

#include <cstddef>
#include <cstdint>

// Opens `path` with `flags`, mode 0666 before the umask. Returns the descriptor; negative on
// failure, logged.
int open_fd(const char* path, int flags);

// Creates `path`, or empties it, and gives it `size` bytes that read as zero (sparse). Returns the
// open descriptor; 0 on failure, logged. A size of 0 is refused as a missing argument, deliberate,
// before anything is touched. The caller owns the descriptor.
int create_file(const char* path, uint64_t size);

// Whether creating `path` could empty the file at `old`: true as well when the system does not say,
// which is logged under `caller`.
bool would_empty(const char* caller, const char* path, const char* old);

enum class file_access { read_write, read_only };
// Opens `path`. Returns the descriptor, the caller's; 0 on failure, logged.
int open_file(const char* path, file_access access = file_access::read_write);

// One write or read of `len` bytes at byte `offset`. Returns the bytes moved, which may be fewer
// (a read at the end of the file); -1 for descriptor 0, a null buffer or a failing seek, all
// logged, and for a failing transfer, which the caller logs. A write that fails or is short
// (logged) is a reason to keep the journal.
int write_fd(int fd, const void* buf, uint64_t offset, uint32_t len);
int read_fd(int fd, void* buf, uint64_t offset, uint32_t len);

// Whether a read of `len` bytes at `offset` that moved `got` bytes stopped before the end of the
// file. What it left out is not what the file holds.
bool read_stopped_early(int fd, uint64_t offset, int got, size_t len);

// The bulk path: as many transfers as `len` bytes at `offset` take. A read fills what the file does
// not have with zeros. Returns true; false when a transfer fails, which is not logged: the caller
// takes the single-entry path then, which logs it. A failure is no reason to keep the journal
// before the single entries have failed as well. The seam sees each call as one io_call::bulk,
// before its seek and its transfers.
bool read_fd_run(int fd, void* buf, uint64_t offset, size_t len);
bool write_fd_run(int fd, const void* buf, uint64_t offset, size_t len);
