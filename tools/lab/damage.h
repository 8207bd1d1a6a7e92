// Damage to a sample: one kind, at one place that the seed picks among those that suit.
// Below: the kinds, each in its file; sample.h. Above: the commands.
#pragma once

#include <string>

#include "lab/damage_site.h"

namespace lab {

// Does the damage and returns one line: the file, the place, what it held and what it holds now.
// Empty: nothing suited or a file could not be had; told, and nothing is changed.
using damage_function = std::string (*)(damage_site* site);

struct damage_kind {
    const char* word;     // on the command line
    const char* meaning;  // for the usage text
    damage_function done_by;
};

const damage_kind* find_damage(const std::string& word);  // null: there is no such kind
std::string damage_words();                               // the table, for the usage text

}  // namespace lab
