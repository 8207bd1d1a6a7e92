// Compares a sample on the disk with the model. Below: sample.h, compare.h,
// rebuilt.h.
#pragma once

#include <string>

#include "lab/progress.h"
#include "lab/sample.h"

namespace lab {

enum class truth {
    recovered,  // every file as expected; after a crash the journal may be gone
    untouched,  // every file as the crash left it, and the journal marked bad
    rebuilt,    // as recovered, but index and table of every volume may have been rebuilt
};

// Describes the first difference; returns "" if there is none. The model must be as make_sample
// made it.
std::string verify_sample(model* m, truth wanted, const std::string& directory, progress* bar);

}  // namespace lab
