// The extent table as a file: header, creation, loading, saving, closing; the one current table of
// the process, and handles for other open tables.
// Below: header_file.h, uuid.h. Above: the table's entries.
#pragma once

#include "store/header_file.h"
#include "tbl/tbl_format.h"

// The current table. fd 0: none is open. Only save_tbl writes the header.
struct tbl_file {
    int fd;
    tbl_header header;
};
extern tbl_file current_tbl;

// A table open in addition to the current one. Its owner allocates it zeroed and frees it.
struct tbl_handle : pool_handle {
    tbl_header header;
};

constexpr const char* TBL_LOAD_FAILED = "Fail to load TBL";  // in messages, before the path

// All return 0, or -1, logged, unless said otherwise.

// Opens `path` as the current table; one that is still open is closed first. After a failure the
// descriptor that was opened stays set: the caller closes.
int load_tbl(const char* path);
// Syncs and closes the current table; nothing to do when none is open.
void close_tbl();
// Writes the current header with fresh checksums.
int save_tbl();
// Creates `newpath` with the extent size and, if it can be read, the uuid of the table at
// `oldpath`, and makes it the current table. The header is only in memory until save_tbl. After a
// failure no table is open. A file is never created from itself.
int create_tbl(const char* newpath, const char* oldpath);
// The same for a rebuild: when the uuid cannot be read after the old header was loaded, the
// header's is used. With a fresh one no journal record would apply to the table.
int recreate_tbl(const char* newpath, const char* oldpath);

// Opens `name`; a wrong magic code is only logged. After a failure nothing stays open.
int load_tbl_handle(tbl_handle* handle, const char* name,
                    file_access access = file_access::read_write);
int close_tbl_handle(tbl_handle* handle);
// Turns an open file into a handle; closes it on failure.
int take_tbl_handle(tbl_handle* handle, const opened_file* file);

int dump_tbl_meta();  // prints the current header
// Replaces the uuid of the current header and prints it before and after; the caller saves.
void set_tbl_uuid(const uint8_t* uuid);
uint32_t get_tbl_extent_size();  // bytes; documented, only tests call it
// Prints old and new; the caller saves. Documented, only tests call it.
void set_tbl_extent_size(uint32_t size);
