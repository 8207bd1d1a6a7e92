// The open handles of the process by uuid: three lists, for table, index and map. Replay finds the
// file that a record names here. Below: the three kinds' handles. Above: pool lookup, drivers.
#pragma once

#include <cstdint>

struct handle_prefix;

void init_handle_set();  // a second call does nothing
// Opens the metadata file at `path` and appends it to the list of the kind that its header names.
// 0, or -1, logged. Before init_handle_set the file is opened, read and closed again: 0, and no
// lookup will find it.
int load_as_handle(const char* path);
// The first handle of `type` with that uuid, in load order; null if there is none. Type 4 is looked
// up among the maps and then among the tables. Types 3 and 5 are logged. The set still owns the
// handle. Documented, only tests call it: the program needs the kind as well.
handle_prefix* lookup_handle(const uint8_t* uuid, uint32_t type);

// The same, and stores the kind of the handle that was found: the list it is in, whatever its
// header says. `*found` is unchanged if `type` has no list.
enum handle_kind { HANDLE_TBL, HANDLE_FRI, HANDLE_MAP };
handle_prefix* lookup_handle_of_kind(const uint8_t* uuid, uint32_t type, handle_kind* found);

// Closes and frees every handle. 0, or -1 when a close failed, logged.
int finish_handle_set();
