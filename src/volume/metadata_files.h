// Opening the metadata files that a step needs: one row per kind, and one opener that closes them
// in every case. Below: the files of the four kinds, volume_paths.h. Above: every procedure and
// command that works on existing files.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "metadata.h"
#include "volume/volume_paths.h"

enum metadata_kind { KIND_FRI, KIND_TBL, KIND_MAP, KIND_JNL };

struct metadata_kind_row {
    int32_t type;             // of the journal's records; 0: the journal itself
    const char* name;         // in messages
    const char* title;        // in the first line of a check or a replay
    const char* load_failed;  // in messages, before the path
    const char* option;       // that names the file on the command line
    char (volume_paths::*path)[PATH_TEXT_SIZE];
    int (*load)(const char* path);  // as the one current file of its kind; 0, or -1, logged
    void (*close)();                // nothing to do when none is open
};
// The row of a kind; never null.
const metadata_kind_row* metadata_kind_of(metadata_kind kind);

// Loads the files in the given order. 0; -1 at the first failure, logged for `caller` with the
// file's path: what was loaded stays loaded.
int load_files(const char* caller, const volume_paths* paths,
               std::initializer_list<metadata_kind> kinds);
// Closes what is open of all four kinds, in the order of metadata_kind.
void close_files();

// Loads the files, runs `step` when all of them are loaded, and closes whatever is open. The result
// of `step`, or -1.
template <class Step>
int with_files(const char* caller, const volume_paths* paths,
               std::initializer_list<metadata_kind> kinds, Step step) {
    const int result = load_files(caller, paths, kinds) == 0 ? step() : -1;
    close_files();
    return result;
}
