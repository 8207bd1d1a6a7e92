// What a run under faults must not do. Below: forms.h, program.h. Above: the driver.
#pragma once

#include <map>
#include <string>

#include "campaign/forms.h"
#include "campaign/program.h"

// A run, and the files that it left.
struct observed {
    program_run run;
    std::map<std::string, std::string> tree;  // as tree_of
};

// The result of one run.
struct verdict {
    std::string result;  // "as undisturbed", "failed", "V1 ..." to "V4 ...", "known: ..."
    bool wrong;
    bool is_known;  // differs from the undisturbed run, as documented
};
// `before` is the tree that the run began with.
verdict judge(const command_form& form, const std::map<std::string, std::string>& before,
              const observed& undisturbed, const observed& got);
