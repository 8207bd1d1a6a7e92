// What the model says of single maps: the bytes of a LUN, and which extents a map shares. The
// oracle of an export and of a space report; neither reads the sample's metadata or data files.
// Below: continued.h, data_files.h. Above: the commands.
#pragma once

#include <string>

#include "lab/continued.h"

namespace lab {

// Writes the bytes of a map to a new sparse file of its total count of extents: the data of each
// mapped extent, zeros elsewhere. `name` is the path of any map below the sample's directory, or
// VOLUME:LUN for a LUN. Returns false if there is no such map, if a killed run may have left it in
// two states, or if the file exists or cannot be written; prints the reason.
bool write_lun_image(const expected_states& states, const std::string& name,
                     const std::string& file);

// One line for each map, by volume: "VOLUME PATH KIND UUID TOTAL MAPPED EXCLUSIVE SHARED".
// EXCLUSIVE counts the extents that only this map refers to, however often; SHARED counts the
// extents, each once, that another map refers to as well.
std::string list_maps(const model& m);

}  // namespace lab
