// The data files of a volume: their sizes, and what each extent holds. An extent never moves and
// its contents depend only on volume and lpa, so the bytes of a LUN follow from its map alone.
// Below: image.h. Above: image.cpp, the running service, the image of a LUN.
#pragma once

#include <string>
#include <vector>

#include "lab/image.h"

namespace lab {

std::string data_path(const volume& vol, uint64_t number);
// Capacity of a data file; file 0 begins with lpa 0.
uint64_t extents_a_data_file(const volume& vol);
uint64_t data_file_size(const volume& vol, uint64_t number);

// The data that was written into the extent: its parts, ascending, without overlap, with offsets in
// the extent. No parts: never written. The other bytes are zero.
std::vector<chunk> data_of(const model& m, size_t volume_index, uint64_t lpa);

// An extent's place in the data files.
struct extent_place {
    uint64_t file;    // number of the data file
    uint64_t offset;  // in the file
};
extent_place place_of_extent(const volume& vol, uint64_t lpa);

// Adds the data of all extents that may hold data to the image of a data file.
void add_extents(const model& m, const file_ref& file, file_image* image);

}  // namespace lab
