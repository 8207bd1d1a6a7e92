// Ages a sample that was shut down cleanly, and leaves it as a crash or a clean shutdown does.
// Below: aging.h, live_disk.h. Above: the commands.
#pragma once

#include <string>

#include "lab/progress.h"

namespace lab {

struct age_order {
    std::string directory;
    uint64_t seed;
    uint64_t transactions;
    bool clean;
};

// Prints what it did. Returns false if the sample is not as it was made or a write fails, and
// prints the reason.
bool age_sample(const age_order& order, progress* bar);

}  // namespace lab
