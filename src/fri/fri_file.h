// The group index as a file: header, creation, loading, saving, closing; the one current index of
// the process, and handles for other open indexes.
// Below: header_file.h, uuid.h. Above: the index's entries.
#pragma once

#include "fri/fri_format.h"
#include "store/header_file.h"

// The current index. fd 0: none is open. The counters change in memory; only save_fri writes them.
struct fri_file {
    int fd;
    fri_header header;
};
extern fri_file current_fri;

// An index open in addition to the current one. Its owner allocates it zeroed and frees it.
struct fri_handle : pool_handle {
    fri_header header;
};

constexpr const char* FRI_LOAD_FAILED = "Fail to load FRI";  // in messages, before the path

// All return 0, or -1, logged, unless said otherwise.

// Opens `path` as the current index; one that is still open is closed first. After a failure the
// descriptor that was opened stays set: the caller closes.
int load_fri(const char* path);
// Syncs and closes the current index; nothing to do when none is open.
void close_fri();
// Writes the current header with fresh checksums.
int save_fri();
// Creates `newpath` with the uuid of the file at `oldpath` (null, or unreadable: a fresh one) and
// makes it the current index. The header is only in memory until save_fri. After a failure no index
// is open. A file is never created from itself.
int create_fri(const char* newpath, const char* oldpath);
// The same for a rebuild: if the uuid of the file at `oldpath` cannot be read, the new index gets
// `uuid` (not null). With a fresh one no journal record would apply to it.
int recreate_fri(const char* newpath, const char* oldpath, const uint8_t* uuid);

// Opens `name`; a wrong magic code is only logged. After a failure nothing stays open.
int load_fri_handle(fri_handle* handle, const char* name,
                    file_access access = file_access::read_write);
int close_fri_handle(fri_handle* handle);
// Turns an open file into a handle; closes it on failure.
int take_fri_handle(fri_handle* handle, const opened_file* file);

// Reads the uuid of any metadata file (a table's too). Documented; the program calls read_file_uuid
// instead.
int extract_fri_uuid(const char* name, uint8_t* uuid_out);

int dump_fri_meta();  // prints the current header
// Replaces the uuid of the current header and prints it before and after; the caller saves.
void set_fri_uuid(const uint8_t* uuid);
