// What can be said of a server at once, whatever its size: no map is read, no table, and nothing is
// replayed. Below: the steps of a check that read names, headers and the journal. Above: judge.h.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/check/check.h"

struct volume_now {
    std::string root;
    uint64_t extent_size = 0;      // bytes; 0: unknown
    std::optional<uint64_t> free;  // extents, in the header of the index
    std::optional<uint64_t> room;  // bytes that its file system has left
};

struct server_facts {
    std::string problem;  // why the server cannot be listed; empty: the rest holds
    check_report report;  // findings that need no reading of maps and tables
    std::vector<volume_now> volumes;
};

// A finding that a service may have caused by writing meanwhile counts only if it is seen twice.
server_facts gather_facts();
