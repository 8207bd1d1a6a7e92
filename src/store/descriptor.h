// The one place that talks to the system about open files: open, read, write, seek, sync,
// truncate, close. Above it every transfer goes through file.h. A test sets `io_fault` and makes
// the n-th call fail; a failed write or sync is counted here, whoever asked for it.
// 0 is never an open file anywhere in this program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>
#include <utility>

enum class io_call { open, read, write, seek, sync, truncate, close };

// What a fault does to one call: error 0 lets it through with at most `limit` bytes.
struct io_verdict {
    int error;     // errno of the failing call; 0: the call is made
    size_t limit;  // read and write: bytes moved at most
};
using io_fault_hook = io_verdict (*)(io_call call, size_t wanted);
extern io_fault_hook io_fault;  // null: nothing is injected; tests only

// Each returns what the system call of its name returns, errno set. Descriptors are closed in
// every program that is started.
int io_open(const char* path, int flags, unsigned mode);
ssize_t io_read(int fd, void* buf, size_t len);
ssize_t io_write(int fd, const void* buf, size_t len);
int64_t io_seek(int fd, uint64_t offset);  // from the start; an offset past 2^63 - 1 is EINVAL
int io_sync(int fd);
int io_truncate(int fd, uint64_t size);
void io_close(int fd);
int64_t io_size(int fd);  // bytes, -1 on failure; leaves no trace on the descriptor

// Which file a descriptor stands for; all zero for none.
struct io_file_id {
    uint64_t device;
    uint64_t inode;
    bool operator==(const io_file_id&) const = default;
};
io_file_id io_identity(int fd);
// Whether both paths name one existing file, through links too. A null path names none.
bool io_same_file(const char* one, const char* other);

// Where the next byte at or after `offset` that is not in a hole lies, and where the next hole
// begins; `end` at the most. A file system that knows no holes says that everything is data.
uint64_t io_next_data(int fd, uint64_t offset, uint64_t end);
uint64_t io_next_hole(int fd, uint64_t offset, uint64_t end);

// Writes (short ones too) and syncs of files that failed in this process, and writes refused
// before they were tried. Start-up replay deletes no journal while this is not 0.
uint64_t io_failed_writes();
void io_count_failed_write();
void io_forget_failed_writes();  // tests only: each stands for a process of its own

// Syncs and closes a descriptor; 0 is let pass. Failures are counted, not told.
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
