// Damage to a sample: one kind, at one suitable place that the seed picks.
// Below: the kinds, each in its file; sample.h. Above: the commands.
#pragma once

#include <string>

#include "lab/damage_site.h"

namespace lab {

// Damages the file and returns one line: the file, the place, the old contents and the new
// contents. Returns "" if no place is suitable or a file cannot be accessed: then it prints the
// reason and changes nothing.
using damage_function = std::string (*)(damage_site* site);

struct damage_kind {
    const char* word;     // on the command line
    const char* meaning;  // for the usage text
    damage_function function;
};

const damage_kind* find_damage(const std::string& word);  // null if there is no such kind
std::string damage_words();                               // the table, for the usage text

}  // namespace lab
