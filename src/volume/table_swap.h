// The swap: a rebuilt table and index take the place of the live ones, which stay as backups. A
// file in the work directory, the marker, says that a swap has begun and which files belong to it,
// so that a later run can finish one that was cut anywhere. At no point is a live file without a
// name, whatever a power failure takes back. Below: descriptor.h, work_dir.h. Above:
// one_key.h, volume_journal.h, startup_replay.h, the commands.
#pragma once

#include <cstddef>

constexpr size_t SWAP_PATH_SIZE = 256;
constexpr size_t SWAP_TEXT_SIZE = 1024;

struct swap_file {
    const char* live_name;             // below the volume's root, as the marker has it
    const char* rebuilt_name;          // the same
    char live[SWAP_PATH_SIZE];         // @EP/EP_TBL
    char rebuilt[SWAP_PATH_SIZE];      // @EP_FIX/EP_TBL
    char backup[SWAP_PATH_SIZE];       // @EP/EP_TBL.bkp
    char next_backup[SWAP_PATH_SIZE];  // @EP/EP_TBL.bkp.new
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
// Looks for the marker of a swap that was cut. One that is not complete was never acted on and
// counts as nothing. `outdated`: neither file was swapped in, and a live one was written since, so
// the rebuilt ones miss something. `unknown`, logged: whether there is one cannot be read.
swap_found table_swap_find(table_swap* swap);

// Whether the live table and index of the volume `root` are of one age: they are not where a swap
// was cut between the two. 0; -1, logged.
int table_swap_expect_pair(const char* root);

// Whether the work directory of the volume `root` may be removed: not while it holds the files of a
// swap that was cut. 0; -1, logged.
int table_swap_expect_none(const char* root);

// Writes the marker for the files that are there now, and puts it on the disk. 0; -1, logged.
int table_swap_begin(table_swap* swap);

// Removes the marker, and puts that on the disk, before the files that it names go. 0; -1, logged.
int table_swap_forget(const table_swap* swap);

// Goes through the swap from wherever it stopped; the marker was found, or begun here. 0: both live
// files are the rebuilt ones, the marker is gone. -1 at the first step that failed, logged: the
// marker and what was not swapped in yet stay for the next run. A file that is not the one of the
// marker is never moved.
int table_swap_finish(const table_swap* swap);
