// The commands that are interrupted, and what must hold after any cut. Below: workshop.h,
// samples.h. Above: the driver of the cuts.
#pragma once

#include <map>
#include <span>
#include <string>

#include "campaign/samples.h"

using tree_lines = std::map<std::string, std::string>;  // as tree_of

// What the judges know of a cut; the state of the disk lies on the bench.
struct cut_case {
    const workshop* shop;
    std::string words;         // the command
    const tree_lines* before;  // the sample
    const tree_lines* after;   // what the command makes of it without a cut
    bool checked;              // `after` is known to be right
    bool finished;             // the run had ended with success before the power failed
};

struct cut_form {
    const char* name;
    sample_kind sample;
    const char* words;
    // Runs the command again, and the other runs that recovery needs. Returns "" or what is wrong.
    std::string (*judge)(const cut_case& cut);
    // Whether the next run on this state may be cut too.
    bool (*goes_on)(const cut_case& cut);
};
std::span<const cut_form> cut_forms();
