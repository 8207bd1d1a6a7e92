// What a LUN's bytes are read through: its map's nodes, and the data files that its pool table
// leads to. Below: state.h, lun_reader.h. Above: source.h.
#pragma once

#include <string>
#include <vector>

#include "ctl/check/state.h"
#include "view/lun_reader.h"

// The header of the map is sound. Adds sentences to `warnings`. Nodes that are damaged on the disk
// stay so, even if the overlay has a replay's writes to them: the replay writes single entries, and
// the other ones are as wrong as before.
lun_layout layout_of(const check_state& state, const volume_check& volume, const map_check& map,
                     std::vector<std::string>* warnings);
