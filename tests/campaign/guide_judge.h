// Compares the LUNs after the robot followed the page with the truth: every loss was announced by a
// row, and a page that says "stop" has written nothing that the copies of step 1 cannot restore.
// Below: guide_robot.h. Above: the drivers.
#pragma once

#include <string>

#include "campaign/guide_robot.h"
#include "campaign/guide_server.h"

struct verdict {
    std::string wrong;    // in one line; empty if nothing is
    size_t entries_lost;  // of all maps, announced or not
};
verdict judge(const guide_walk& walk, const guide_trouble& trouble, guide_server* server);
