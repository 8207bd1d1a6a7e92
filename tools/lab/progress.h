// A progress bar, shown only on a terminal. Below: nothing.
#pragma once

#include <cstdint>

namespace lab {

struct progress {
    bool shown;  // standard error is a terminal
    const char* what;
    uint64_t total;
    uint64_t done;
    uint64_t percent;  // last one drawn
};

progress progress_of_terminal();
void progress_start(progress* bar, const char* what, uint64_t total);
void progress_step(progress* bar);
void progress_end(progress* bar);

}  // namespace lab
