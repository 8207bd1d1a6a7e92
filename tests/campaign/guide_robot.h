// An operator who knows nothing but the repair page and follows it to the letter, from its first
// screen on. Below: guide_page.h, guide_server.h. Above: the drivers.
#pragma once

#include <string>
#include <vector>

#include "campaign/guide_page.h"
#include "campaign/guide_server.h"

// One row that was followed.
struct guide_move {
    std::string step;
    const guide_row* row;  // of the page, which outlives it
    std::string seen;      // the text on terminal and log
    std::string about;     // the volume or map that the row was about, may be empty
};

struct guide_walk {
    std::vector<guide_move> moves;
    std::string end;  // "done", "stop", or the error: no row, or no end
};

// The index of the first row that matches, or the number of rows. `about` gets its volume or map.
size_t find_row(const guide_step& step, const std::string& seen, std::string* about);

guide_walk follow(const guide& page, guide_server* server);
