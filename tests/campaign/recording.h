// A recording: what a run changed, operation by operation, with all that is needed to replay it.
// The preload library writes it, power_cut.h builds states of the disk from it.
// Below: nothing. Above: both of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

enum class op_kind : uint32_t {
    write,           // bytes at `number` of a file
    truncate,        // a file has `number` bytes now
    mode,            // a file has the permissions `number` now
    create,          // an empty file got the name `path`, with the permissions `number`
    mkdir,           // a directory got the name `path`
    rename,          // `path` is called `other` now
    link,            // `path` is called `other` as well
    unlink,          // the name `path` is gone
    rmdir,           // the same, of a directory
    remove_tree,     // a program was started that removes `path` and all below it
    sync_file,       // fsync, fdatasync of a file
    sync_directory,  // fsync of the directory `path`
    sync_all,        // syncfs of the file system that `path`, or the file, lies on
};

// Followed by the path, the other path and the bytes of a write.
struct op_head {
    op_kind kind;
    uint32_t path_length;
    uint32_t other_length;
    uint32_t bytes_length;
    uint64_t device;  // these two: the file, if it was open
    uint64_t inode;
    uint64_t number;
};
static_assert(sizeof(op_head) == 40);

using file_id = std::pair<uint64_t, uint64_t>;  // device, inode

struct operation {
    op_kind kind;
    file_id file;
    uint64_t number;
    std::string path;
    std::string other;
    std::vector<uint8_t> bytes;
};

// Reads a recording; the last operation may be cut, and is left out then.
std::vector<operation> read_recording(const std::string& path);
// The files of a tree as they are called below its root, before a run that is recorded.
std::map<file_id, std::string> identities_of(const std::string& root);
