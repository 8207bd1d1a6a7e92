// One check of one sample that tarn-lab made, judged: damaged, clean, or crashed. The tests of the
// suite try a few seeds, the campaign many. Below: damage_table.h, everything.h.
#pragma once

#include <string>

// What came of it: "right", "no place" if the sample has no place for the damage, or what is wrong.
std::string try_damage(const std::string& kind, unsigned seed);
// Two damages, which the seed picks: on two volumes if it is even, else on one.
std::string try_pair(unsigned seed);

// The options that make the sample of a clean seed.
std::string clean_shape(unsigned seed);
// A server that was shut down, rebuilt or recovered: no finding but notes.
std::string try_clean(unsigned seed);

// A server as a power failure left it: as if replayed it is clean, or the replay would be refused.
// Nothing changes. `differs`: whether what is on the disk is not clean.
std::string try_crash(unsigned seed, bool* differs);
