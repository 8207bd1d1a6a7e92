// A sample on the disk against the model's truth. Below: sample.h, compare.h,
// rebuilt.h.
#pragma once

#include <string>

#include "lab/progress.h"
#include "lab/sample.h"

namespace lab {

enum class truth {
    recovered,  // every file as it ought to be; after a crash the journal may be gone
    untouched,  // every file as the crash left it, and the journal marked bad
    rebuilt,    // as recovered, but index and table of every volume may have been built anew
};

// The first difference in words; empty: none. The model is as make_sample made it.
std::string verify_sample(model* m, truth wanted, const std::string& directory, progress* bar);

}  // namespace lab
