// What became of the LUNs when the robot had followed the page, against the truth: nothing may be
// lost that a row had not announced, and a page that says "stop" has written nothing that the
// copies of step 1 do not take back. Below: guide_robot.h. Above: the drivers.
#pragma once

#include <string>

#include "campaign/guide_robot.h"
#include "campaign/guide_server.h"

struct verdict {
    std::string wrong;    // in one line; empty: nothing
    size_t entries_lost;  // of all maps, announced or not
};
verdict judge(const guide_walk& walk, const guide_trouble& trouble, guide_server* server);
