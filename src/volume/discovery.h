// Finding volumes, and the map files of a volume. Below: path_list.h, volume_paths.h, the platform.
#pragma once

struct path_entry;

// What is done with the volume at `root`: 0 goes on to the next.
using volume_step = int (*)(const char* root, int argc, char** argv);

// Appends the root of every volume that carries LUN metadata. 0, or -1, logged; the caller frees
// the list in every case. A null list: the tests run, nothing is appended.
int enum_all_volumes(path_entry* list);
// Appends every map file of the volume in opt_ctx.volpath: LUNs, trash, snapshots, then the unmap
// buffer (type 1) and the ROD map (type 2). 0; -1, logged, also for a name that is not below the
// directory searched, for a file whose real path lies outside the volume's, and when the system
// does not say whether the buffer or the ROD map is there: no map may be changed outside the
// volume, and none left out.
int enum_all_vaai_luns(path_entry* list);

// Takes `step` with every volume that enum_all_volumes finds, in its order, up to the first that
// does not give 0, and returns what that gave. A failure to list them is logged for `caller`.
int for_each_volume(const char* caller, volume_step step, int argc, char** argv);
