// The one place that talks to the system about files: open files (open, read, write, seek, sync,
// truncate, close) and names (status, rename, link, unlink, directories, locks). Above it every
// transfer goes through file.h. A test sets `io_fault` and makes the n-th call fail.
// 0 is never an open file anywhere in this program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>

enum class io_call {
    open,
    read,
    write,
    seek,
    sync,      // of a file, a directory or a file system
    bulk,      // the start of a transfer of many blocks; a refusal sends it entry by entry
    truncate,  // to a size; creating a file does it too
    allocate,
    stat,  // status and real path of a name
    rename,
    link,
    unlink,
    mkdir,
    list,   // reading a directory
    owner,  // setting owner or mode
    lock,
    spawn,  // starting a program
};

// What a fault does to one call: error 0 allows it, with at most `limit` bytes.
struct io_verdict {
    int error;     // errno of the failing call; 0: the call is made
    size_t limit;  // read and write: bytes moved at most
};
using io_fault_hook = io_verdict (*)(io_call call, size_t wanted);
extern io_fault_hook io_fault;  // null: nothing is injected; tests only

// Keeps every write in memory (store/overlay.h). Null: files are written; always so in tarn.
extern class io_overlay* io_overlay_on;

// For calls that the platform makes for this program (a program that is started, space that is
// given back): false when the test's hook makes this one fail, or the overlay, errno set.
bool io_allow(io_call call);

// Each returns what the system call of its name returns, errno set. Descriptors are closed in
// every program that is started.
int io_open(const char* path, int flags, unsigned mode);
ssize_t io_read(int fd, void* buf, size_t len);
ssize_t io_write(int fd, const void* buf, size_t len);
// At a byte of the file; its position stays where it is. io_call::read and io_call::write.
ssize_t io_read_at(int fd, void* buf, size_t len, uint64_t offset);
ssize_t io_write_at(int fd, const void* buf, size_t len, uint64_t offset);
// Up to `len` bytes of one file at a byte of another one, both open; their positions stay. Shares
// them where the file system can. Not for files of an overlay. io_call::write.
ssize_t io_copy(int from, uint64_t from_offset, int to, uint64_t to_offset, size_t len);
int64_t io_seek(int fd, uint64_t offset);  // from the start; an offset past 2^63 - 1 is EINVAL
int io_sync(int fd);
int io_sync_file_system(int fd);  // everything on the file system of `fd`
int io_truncate(int fd, uint64_t size);
void io_close(int fd);
int64_t io_size(int fd);  // bytes, -1 on failure; leaves no trace on the descriptor
int io_set_owner(int fd, uid_t uid, gid_t gid);
int io_set_mode(int fd, mode_t mode);
int io_lock(int fd);  // exclusive, without waiting: EWOULDBLOCK when another process holds it

int io_stat(const char* path, struct stat64* status);   // of what a link leads to
int io_lstat(const char* path, struct stat64* status);  // of a link itself
int64_t io_available(const char* path);  // bytes that its file system has left; -1 on failure
int io_rename(const char* from, const char* to);
int io_link(const char* from, const char* to);
int io_unlink(const char* path);
int io_mkdir(const char* path, mode_t mode);
// The path without links, "." and "..": PATH_MAX bytes through `out`. Null on failure.
char* io_real_path(const char* path, char* out);

// Opens a directory for reading; the caller closes it with closedir(). Null on failure.
DIR* io_open_directory(const char* path);
// Stores the next entry's name, valid until the next call; null at the end. 0, or -1 on failure.
int io_next_entry(DIR* directory, const char** name);

// Whether something was written through this descriptor, or its size set, since it was opened.
bool io_was_written(int fd);

// Raises the limit of open files as far as this process may. A failure is not reported: then fewer
// files can be opened, and the open that fails is logged.
void raise_open_file_limit();

// The file that a descriptor refers to; all zero for none.
struct io_file_id {
    uint64_t device;
    uint64_t inode;
    bool operator==(const io_file_id&) const = default;
};
io_file_id io_identity(int fd);
// 1 when both paths name one existing file, through links too; 0 when not, or one is null or names
// nothing; -1 when the system does not say.
int io_same_file(const char* one, const char* other);

// The path of the file that `fd` refers to, cut to fit; "descriptor <fd>" when the system does not
// say. Returns `out`.
const char* io_name(int fd, char* out, size_t size);
constexpr size_t IO_NAME_SIZE = 256;

// The first byte at or after `offset` that is not in a hole, and the first that is; at most `end`.
// A file system without holes reports everything as data.
uint64_t io_next_data(int fd, uint64_t offset, uint64_t end);
uint64_t io_next_hole(int fd, uint64_t offset, uint64_t end);

// Closes a descriptor, and syncs it first when something was written through it; 0 is skipped. A
// failed sync is logged, and is a reason to keep the journal.
void close_synced(int fd);

// Closes its descriptor at the end of its scope.
class scoped_fd {
public:
    explicit scoped_fd(int fd) : fd_(fd) {}
    scoped_fd(scoped_fd&& from) noexcept : fd_(from.release()) {}
    scoped_fd(const scoped_fd&) = delete;
    scoped_fd& operator=(const scoped_fd&) = delete;
    scoped_fd& operator=(scoped_fd&&) = delete;
    ~scoped_fd() { io_close(fd_); }  // io_close does nothing with 0
    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] int release() { return std::exchange(fd_, 0); }

private:
    int fd_;  // 0: none
};
