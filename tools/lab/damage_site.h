// Where a damage is done: the files of one volume of a sample, and the journal, as they lie on the
// disk now. Reads and changes them by the formats alone. Below: model.h, pool_entries.h, bytes.h.
// Above: the kinds of damage.
#pragma once

#include <string>
#include <vector>

#include "lab/model.h"
#include "lab/pool_entries.h"

namespace lab {

struct damage_site {
    std::string directory;  // the sample's
    const model* sample;    // which files there are and how far they reach, not what they hold
    size_t volume;
    random_stream random;  // picks the place
};

const volume& volume_of(const damage_site& site);
// Paths below the sample's directory.
std::string index_of(const damage_site& site);
std::string table_of(const damage_site& site);

// Each is false, told on standard error, when the file cannot be had.
bool get_bytes(const damage_site& site, const std::string& path, uint64_t offset, void* bytes,
               size_t length);
bool put_bytes(const damage_site& site, const std::string& path, uint64_t offset, const void* bytes,
               size_t length);
// As put_bytes, and the header node or block that the bytes lie in gets the checksum of what it
// holds then.
bool put_sealed(const damage_site& site, const std::string& path, uint64_t offset,
                const void* bytes, size_t length);

// Says why nothing was damaged; always empty.
std::string refuse(const std::string& why);

// Index and table of the volume as far as the sample ever reached.
bool read_pool(const damage_site& site, pool_entries* out);

}  // namespace lab
