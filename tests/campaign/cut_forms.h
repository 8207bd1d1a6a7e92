// The commands that are cut, and what has to hold after any cut. Below: workshop.h, samples.h.
// Above: the driver of the cuts.
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
    const tree_lines* after;   // what the command makes of it when nothing is cut
    bool checked;              // `after` is known to be right
    bool finished;             // the run had ended with success before the power failed
};

struct cut_form {
    const char* name;
    sample_kind sample;
    const char* words;
    // Runs the command again, and whatever else it takes. "", or what is wrong.
    std::string (*judge)(const cut_case& cut);
    // Whether the run that follows on this state may be cut as well.
    bool (*goes_on)(const cut_case& cut);
};
std::span<const cut_form> cut_forms();
