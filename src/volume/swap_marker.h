// The marker of a swap: a file in the work directory that records that a swap has begun and which
// files belong to it, so that a later run can finish it, wherever it was interrupted. Below:
// descriptor.h, work_dir.h. Above: table_swap.h, one_key.h, volume_journal.h, startup_replay.h, the
// commands.
#pragma once

#include <cstddef>
#include <sys/stat.h>

#include "store/descriptor.h"

constexpr size_t SWAP_PATH_SIZE = 256;
constexpr size_t SWAP_TEXT_SIZE = 1024;
constexpr size_t SWAP_NAME_SIZE = 32;

struct swap_file {
    char live_name[SWAP_NAME_SIZE];     // EP_DIR/TABLE_NAME, as the marker has it
    char rebuilt_name[SWAP_NAME_SIZE];  // FIX_DIR/TABLE_NAME, the same
    char live[SWAP_PATH_SIZE];          // the path of live_name
    char rebuilt[SWAP_PATH_SIZE];       // the path of rebuilt_name
    char backup[SWAP_PATH_SIZE];        // live and ".bkp"
    char next_backup[SWAP_PATH_SIZE];   // live and ".bkp.new"
};

struct table_swap {
    char live_dir[SWAP_PATH_SIZE];
    char work_dir[SWAP_PATH_SIZE];
    char marker[SWAP_PATH_SIZE];
    char text[SWAP_TEXT_SIZE];  // of the marker
    swap_file files[2];         // the table, the index: in this order
};

// Forms the paths for the volume `root`. 0; -1, logged, when one would be cut.
int table_swap_form(table_swap* swap, const char* root);

enum class swap_found { nothing, marker, outdated, unknown };
// Looks for the marker of an interrupted swap. An incomplete marker was never acted on and counts
// as nothing. `outdated`: neither file was swapped in, and a live one was written since, so the
// rebuilt ones lack changes. `unknown`, logged: the marker or a file cannot be examined.
swap_found table_swap_find(table_swap* swap);

// 0 if the live table and index of the volume `root` belong together. -1, logged, if a swap was
// interrupted between the two, or if that is unknown.
int table_swap_expect_pair(const char* root);

// 0 if the work directory of the volume `root` may be removed. -1, logged, if it holds the files of
// an interrupted swap, or if that is unknown.
int table_swap_expect_none(const char* root);

// Writes and syncs the marker for the files as they are now. 0; -1, logged.
int table_swap_begin(table_swap* swap);

// Removes the marker and syncs its directory, before the files that it names are removed. 0; -1,
// logged.
int table_swap_forget(const table_swap* swap);

// What the marker and the moves share.
constexpr const char* SWAP_LOG_NAME = "one_key_repair";  // names the log lines
constexpr size_t SWAP_LINE_SIZE = 96;

// What a name refers to; a link is not followed.
struct name_status {
    bool there;
    struct stat64 status;
};
// 0; -1, logged, if that is unknown.
int swap_stat(const char* path, name_status* name);
// Returns true if both are names of the same file.
bool swap_same_file(const name_status* one, const name_status* other);
// Returns true if the rebuilt file is still to be swapped in.
bool swap_is_pending(const name_status* rebuilt, const name_status* live);

// Writes the marker's line of the file at `path` as `name`: SWAP_LINE_SIZE bytes. An unreadable
// file gets a line too: such a file is why a repair is run. Returns false if its status is unknown,
// logged.
bool swap_describe(const char* name, const char* path, char* line);
// The line of a file that is absent or unreadable has no uuid.
bool swap_has_uuid(const char* line);
bool swap_has_line(const table_swap* swap, const char* line);

// Logs the step that failed, its path and errno. -1.
int swap_failed(const char* step, const char* path);
