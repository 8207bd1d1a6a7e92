// The header of a metadata file, and what the files and handles of all kinds share: open, read the
// header, keep it, save it, close. Below: file.h, descriptor.h, meta_node.h, data_node.h. Above:
// uuid.h, the files of table, index, map and data, the handle set.
#pragma once

#include "store/data_node.h"
#include "store/file.h"
#include "store/meta_node.h"

// A kind of metadata file: how its header is named and laid out.
struct header_kind {
    const char* word;  // as log lines name it: "tbl"
    int const_nodes;
    int var_nodes;
};
constexpr size_t HEADER_SIZE_MAX = 5 * META_NODE_SIZE;  // bytes of the largest header: a map's

// Opens `path` and returns the descriptor, which the caller owns. 0 on failure: logged by
// open_file, and under the name `caller` with the kind's word.
int open_kind(const char* caller, const header_kind& kind, const char* path, file_access access);

// Opens `path` and reads its header into `header`. Returns the descriptor, which the caller owns; 0
// if either fails, logged, and nothing stays open.
int open_with_header(const char* caller, const header_kind& kind, const char* path, void* header,
                     file_access access = file_access::read_write);

// Reads the uuid of the metadata file at `path`, whatever its kind; a wrong magic code is only
// logged. 0, or -1. Log lines carry the documented name, extract_fri_uuid.
int read_file_uuid(const char* path, uint8_t* uuid);

// The current file of a kind: its descriptor and header are the caller's variables.
enum class magic_rule { required, only_logged };
// Opens `path` into `*fd` and reads its header. 0; -1, logged, and `header` stays as it was. After
// a failure the descriptor that was opened stays in `*fd`: the caller closes it.
int load_header_file(const char* caller, const header_kind& kind, magic_rule rule, const char* path,
                     int* fd, void* header);
// Saves the header with fresh checksums, which also go into `header`. 0; -1, logged, which includes
// descriptor 0.
int save_header_file(const char* caller, const header_kind& kind, int fd, void* header);

// The common beginning of the handles of table, index and map, by which the handle set links, names
// and compares them. The kind's handle derives from it and holds the header.
struct handle_prefix {
    int fd;                     // 0: closed
    char path[PATH_TEXT_SIZE];  // as it was opened, cut to fit
    handle_prefix* next;        // the next one in the handle set's list, or null
    uint8_t uuid[UUID_SIZE];    // of the header, which never changes in a handle
};

// What the handles of table and index have in addition to their header.
struct pool_handle : handle_prefix {
    uint8_t* buffer;    // of new[], released on close; usually null
    data_node node;     // documented with the handle; unused
    uint64_t node_num;  // the same
};

// A file that was opened to find out its kind, and its first bytes.
struct opened_file {
    int fd;
    const char* path;  // owned by the caller
    meta_header header;
};

// All return 0, or -1, logged. `header` is the handle's own, null for a null handle. A wrong magic
// code is only logged.

// Opens `name` as a handle. After a failure the handle is closed and its buffer released.
int load_handle(const char* caller, const header_kind& kind, pool_handle* handle, void* header,
                const char* name, file_access access);
// Turns an open file into a handle; closes the file on failure.
int take_handle(const header_kind& kind, pool_handle* handle, void* header,
                const opened_file* file);
// Fills header, path and uuid of a handle; descriptor and file stay as they are.
int take_header(const header_kind& kind, handle_prefix* handle, void* header,
                const opened_file* file);
// Releases the buffer, syncs what was written and closes. -1 for a null handle only.
int close_handle(const char* caller, pool_handle* handle);

// Frees the buffer (of new[], or null), syncs what was written, closes, and clears both.
void end_handle(int* fd, uint8_t** buffer);
// The same after a failure, without the sync: nothing was written. Returns -1.
int drop_handle(int* fd, uint8_t** buffer);
