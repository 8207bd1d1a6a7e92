// A running service: goes on making transactions on a sample that was shut down cleanly, until the
// time is over or a signal stops it. Below: continued.h, live_disk.h. Above: the commands.
#pragma once

#include <string>

#include "lab/model.h"
#include "lab/progress.h"

namespace lab {

// Makes the model of a sample whose service is to start. What the service does changes what the
// model knows, so the sample must be what the model says: as make left it, without --crash and
// --unfinalized. Returns false otherwise, and prints the reason.
bool starts_from(const std::string& directory, model* m, progress* bar);

struct run_order {
    std::string directory;
    uint64_t seed;
    uint64_t seconds;
    uint64_t rate;  // transactions a second, at most
};

// Runs until the time is over, or until SIGTERM or SIGINT, and leaves the sample as a killed
// service does. Prints what it did. Returns false if the sample is not as it was made or a write
// fails, and prints the reason.
bool run_service(const run_order& order, progress* bar);

}  // namespace lab
