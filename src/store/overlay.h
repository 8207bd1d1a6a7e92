// Writes that stay in memory: what a program writes is kept in blocks of 512 bytes over the files
// on disk, and read back through the same calls. The disk is never written. Below: zero_memory.h,
// the system. Above: descriptor.cpp, which calls it in place of the system, and the companion
// programs that switch it on. tarn itself never does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <sys/types.h>
#include <unordered_map>

#include "store/descriptor.h"

constexpr uint64_t OVERLAY_BLOCK_SIZE = 512;

// As long as this object lives, the calls of descriptor.h are answered like this; one at a time.
//  - Every file is opened for reading only, whatever the flags say, so files and file systems that
//    may only be read do as well. What would create, empty, resize, rename, link or remove a file,
//    make a directory or set owner or mode fails with EROFS, and so does the leave to give back
//    space.
//  - A write is kept in memory, for the file and not for the descriptor. It fails with EBADF if the
//    descriptor was opened for reading only. Without memory, or past `max_blocks`, it ends short
//    like a write to a full disk, or fails with ENOMEM.
//  - Reads, sizes, data and holes are those of a file that has been written. Its times are those of
//    the disk.
//  - A sync succeeds and does nothing. A lock succeeds and is not taken: a run of the tool that
//    writes must not be turned away by one that only reads.
// A file is known by device and inode: one that is removed while its blocks are kept may pass
// them on to a new file. Programs that are started see the disk as it is, and may write it.
// Several threads may read at the same time while none of them writes.
class io_overlay {
public:
    explicit io_overlay(size_t max_blocks);
    ~io_overlay();  // forgets what was written
    io_overlay(const io_overlay&) = delete;
    io_overlay& operator=(const io_overlay&) = delete;

    [[nodiscard]] size_t block_count() const { return block_count_; }
    // A write or an open failed for want of memory: what was written is not complete.
    [[nodiscard]] bool ran_out() const { return ran_out_; }

    // The calls of descriptor.h, after a test's hook has allowed them.
    int open(const char* path, int flags);
    void forget_descriptor(int fd);  // before it is closed
    ssize_t read(int fd, void* buf, size_t len) const;
    ssize_t write(int fd, const void* buf, size_t len);
    ssize_t read_at(int fd, void* buf, size_t len, uint64_t offset) const;
    ssize_t write_at(int fd, const void* buf, size_t len, uint64_t offset);
    [[nodiscard]] int64_t size(int fd) const;
    void correct(struct stat64* status) const;  // as the disk has it
    // `on_disk`: what the disk alone gives.
    [[nodiscard]] uint64_t next_data(int fd, uint64_t offset, uint64_t on_disk) const;
    [[nodiscard]] uint64_t next_hole(int fd, uint64_t offset, uint64_t end) const;

private:
    struct block {
        uint8_t bytes[OVERLAY_BLOCK_SIZE];
    };
    struct file {
        std::map<uint64_t, block> blocks;  // by the number of the block
        uint64_t end;                      // the byte after the last one that was written
    };
    struct hash_of_id {
        size_t operator()(const io_file_id& id) const;
    };
    // What a descriptor was opened as.
    struct opened {
        io_file_id id;
        bool known;  // false: opened elsewhere, or not at all
        bool regular;
        bool writable;  // for its owner; the system has it open for reading
    };

    int keep_descriptor(int fd, bool writable);
    bool find_opened(int fd, opened* found) const;
    [[nodiscard]] const file* find_file(int fd) const;
    file* make_file(const io_file_id& id);
    file* file_to_write(int fd, size_t len, uint64_t offset);
    bool put(int fd, file* to, uint64_t offset, const uint8_t* bytes, size_t len);
    bool add_block(int fd, file* to, uint64_t number, bool whole);
    int fail_without_memory();

    size_t max_blocks_;
    size_t block_count_ = 0;
    bool ran_out_ = false;
    opened* descriptors_;  // null: no memory, every open fails
    std::unordered_map<io_file_id, file, hash_of_id> files_;
};

// Alive: the calls of descriptor.h go to the disk, and the overlay keeps what it has. A descriptor
// is closed in the state in which it was opened.
class io_overlay_pause {
public:
    io_overlay_pause() : paused_(io_overlay_on) { io_overlay_on = nullptr; }
    ~io_overlay_pause() { io_overlay_on = paused_; }
    io_overlay_pause(const io_overlay_pause&) = delete;
    io_overlay_pause& operator=(const io_overlay_pause&) = delete;

private:
    io_overlay* paused_;
};
