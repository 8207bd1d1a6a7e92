// Maps by the names that people give them. Below: state.h. Above: commands that are given a LUN.
#pragma once

#include <string>
#include <vector>

#include "ctl/check/state.h"

struct named_map {
    const volume_check* volume;
    const map_check* map;
};

// The maps that the name fits: "LUN_7" (as reports show it), its path below the volume, its whole
// path, or one of the first two behind the volume's root and a colon ("/volume1:LUN_7").
std::vector<named_map> maps_named(const check_state& state, const std::string& name);

// "'NAME' fits no map", or the maps that it fits, each with its whole path: for a refusal.
std::string ambiguity_of(const std::string& name, const std::vector<named_map>& fitting);
