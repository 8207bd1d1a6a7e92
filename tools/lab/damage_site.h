// The files that can be damaged: those of one volume of a sample, and the journal, in their current
// state on the disk. Uses only the formats to read and change them. Below: model.h, pool_entries.h,
// file_bytes.h. Above: the kinds of damage.
#pragma once

#include <string>
#include <vector>

#include "lab/model.h"
#include "lab/pool_entries.h"

namespace lab {

struct damage_site {
    std::string directory;  // the sample's
    const model* sample;    // names and sizes of the files; their contents are read from the disk
    size_t volume;
    random_stream random;  // picks the place
};

const volume& volume_of(const damage_site& site);
// Paths below the sample's directory.
std::string index_of(const damage_site& site);
std::string table_of(const damage_site& site);

// As those of file_bytes.h, for a path below the sample's directory.
bool get_bytes(const damage_site& site, const std::string& path, uint64_t offset, void* bytes,
               size_t length);
bool put_bytes(const damage_site& site, const std::string& path, uint64_t offset, const void* bytes,
               size_t length);
bool put_sealed(const damage_site& site, const std::string& path, uint64_t offset,
                const void* bytes, size_t length);

// Prints why nothing was damaged; always returns "".
std::string refuse(const std::string& why);

// Reads index and table of the volume, for all groups that the sample ever used.
bool read_pool(const damage_site& site, pool_entries* out);

}  // namespace lab
