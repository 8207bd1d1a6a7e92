// Finding volumes, and the map files of a volume. Below: path_list.h, volume_paths.h, the platform.
#pragma once

struct path_entry;

// Appends the root of every volume that carries LUN metadata. 0, or -1, logged; the caller frees
// the list in every case. A null list: the tests run, nothing is appended.
int enum_all_volumes(path_entry* list);
// Appends every map file of the volume in opt_ctx.volpath: LUNs, trash, snapshots, then the unmap
// buffer (type 1) and the ROD map (type 2). 0, or -1, logged.
int enum_all_vaai_luns(path_entry* list);
