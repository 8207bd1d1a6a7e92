// What a running service writes, in its order: the record, the header that names it, and the
// metadata some time later. Below: model.h, image.h, file_bytes.h. Above: run.h.
#pragma once

#include "lab/transaction.h"

namespace lab {

struct live_disk {
    std::string directory;
    random_stream order;                  // picks what is written when
    std::vector<metadata_write> pending;  // not on the disk yet, oldest first
    std::vector<size_t> data_done;        // for each volume: how many of `taken` hold their data
};

// Of a service that starts: nothing is pending.
live_disk start_disk(const std::string& directory, const model& m, random_stream order);

// All return false if a write fails, and print the reason.

bool write_status(const live_disk& disk, const model& m);
// Before the next transaction is recorded: writes what will then have left the budget. The model
// must hold complete transactions only, as for write_some.
bool write_oldest(live_disk* disk, const model& m);
// The data files have to hold every extent of a group before a record names it.
bool extend_data_files(const live_disk& disk, const model& m);
// The data of newly taken extents is written before a record names them.
bool write_data(live_disk* disk, const model& m);
// Writes the record of the transaction at block `start` of the ring, which is complete in the
// model, and the header. Its metadata writes are pending then.
bool write_record(live_disk* disk, const model& m, const transaction& t, uint64_t start);
// Writes some of the pending metadata.
bool write_some(live_disk* disk, const model& m);
// The map files of `before` become those of `m`: one may be created, renamed or removed.
using map_paths = std::vector<std::string>;  // by number of the map; "" if it has no file
map_paths paths_of(const model& m);
bool change_files(const live_disk& disk, const model& m, const map_paths& before);

}  // namespace lab
