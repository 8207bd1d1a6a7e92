// The paths of one volume's files, and the tests and derivations of paths that the procedures
// share. Below: the platform, the seam. Above: everything in this room.
#pragma once

#include <cstddef>

#include "metadata.h"
#include "volume_layout.h"

// The files that a procedure works on. A path that did not fit, or was not given, is empty: opening
// it fails. Zero at start.
struct volume_paths {
    char root[PATH_TEXT_SIZE];   // of the volume, "/volume<N>"
    char table[PATH_TEXT_SIZE];  // live, in a work directory, or as named on the command line
    char index[PATH_TEXT_SIZE];  // the same
    char unmap_buffer[PATH_TEXT_SIZE];
    char rod_map[PATH_TEXT_SIZE];
    char journal[PATH_TEXT_SIZE];  // one for all volumes
    char map[PATH_TEXT_SIZE];      // the map that is being processed
};

// Sets the root, and the unmap buffer and the ROD map, which are always those of the root.
void set_volume_root(volume_paths* paths, const char* root);
// Points table and index into directory `name` of the root. 0; -1, logged, when one does not fit:
// it is empty then.
int set_table_paths(volume_paths* paths, const char* name);
// Sets the map that is being processed: one of a list, whose names always fit.
void set_map_path(volume_paths* paths, const char* map);
// Sets the journal from the iSCSI configuration. 0; -1, logged, the journal is not changed then.
int get_jnl_root_path(volume_paths* paths);
// Sets the configured journal if none is named, and prints a line if it is not a regular file. 0,
// or -1.
int prepare_jnl_path(volume_paths* paths);

// snprintf into `out`. 0; -1, logged and `out` empty, when the path does not fit, so that no cut
// path is ever used.
[[gnu::format(printf, 3, 4)]] int form_path(char* out, size_t size, const char* format, ...);

// What a name refers to, with links followed.
enum class path_kind {
    absent,  // nothing there, or no path at all
    directory,
    file,
    other,
    unknown,  // its status cannot be read: I/O error, no permission, a loop of links
};
// `unknown` is logged under `caller`, and is a reason to keep the journal.
path_kind kind_of_path(const char* caller, const char* path);

// 1 when `path` contains "/volume" and holds EP_DIR and LUN_DIR, each path of 63 characters at
// most; else 0, reported on standard output. A root too long for that, and a name of unknown kind,
// are logged as well, and are reasons to keep the journal.
int is_vaai_volume(const char* path);
// The same test without output: true even if the answer is unknown.
bool may_be_vaai_volume(const char* path);
int is_regular_file(const char* path);  // 1; 0 even if unknown, see kind_of_path
// Writes "/volume<N>" of the volume that holds `path` into `out`, which has room for
// PATH_TEXT_SIZE. Returns its length, or -1. Only a null path is logged: the caller logs any other
// path.
int parse_volume_path(const char* path, char* out);
