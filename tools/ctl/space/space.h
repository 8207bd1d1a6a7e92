// `tarnctl space`: how much of each volume every LUN and snapshot holds, alone and shared.
// Below: check/look.h, check/map_nodes.h. Above: main.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ctl/output.h"

enum class space_order { exclusive, shared, name };

struct space_request {
    std::vector<std::string> volumes;     // roots; empty: all
    std::vector<std::string> if_deleted;  // LUNs that count as one owner; empty: none
    space_order order = space_order::exclusive;
    uint64_t memory = uint64_t{64} << 20;  // bytes for owners of extents
};

int run_space(const space_request& request, const output_style& style);
