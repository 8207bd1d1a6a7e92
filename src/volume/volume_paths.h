// The layout of a volume, and the small tests and derivations of paths that the procedures share.
// Below: the option record, the platform. Above: everything in this room.
#pragma once

#include <cstddef>

#include "volume/volume_layout.h"

// Writes "<root>/<format...>" style paths: snprintf into `out`. 0; -1, logged and `out` empty, when
// the path does not fit, so that no cut path is ever used.
[[gnu::format(printf, 3, 4)]] int form_path(char* out, size_t size, const char* format, ...);

// What a name leads to, through links.
enum class path_kind {
    absent,  // nothing there, or no path at all
    directory,
    file,
    other,
    unknown,  // the system does not say: I/O error, no permission, a loop of links
};
// `unknown` is logged under `caller`, and is a reason to keep the journal.
path_kind kind_of_path(const char* caller, const char* path);

// 1 when `path` contains "/volume" and holds "@EP" and "@iSCSITrg", each path of 63 characters at
// most; else 0, reported on standard output. A root too long for that, and a name of unknown kind,
// are logged as well, and are reasons to keep the journal.
int is_vaai_volume(const char* path);
// The same question without a word: true even if the answer is not certain.
bool may_be_vaai_volume(const char* path);
int is_regular_file(const char* path);  // 1; 0 also when unknown, see kind_of_path
// Sets opt_ctx.jnlpath from the iSCSI configuration. 0; -1, logged, jnlpath untouched.
int get_jnl_root_path();
// Fills an empty opt_ctx.jnlpath, and notes a journal that is no file. 0, or -1.
int prepare_jnl_path();
// Writes "/volume<N>" of the volume that holds `path` into `out`, which has room for
// PATH_TEXT_SIZE. Its length; -1, where only a null path is logged: the caller names the path.
int parse_volume_path(const char* path, char* out);
// Points fripath and tblpath at the live files of the volume `root`.
void set_live_table_paths(const char* root);
