// Kinds of power failure: which of the unsynced changes are lost.
// Below: power_cut.h, dice.h. Above: the driver of the cuts.
#pragma once

#include <string>
#include <vector>

#include "campaign/dice.h"
#include "campaign/power_cut.h"

struct named_fate {
    std::string name;
    fate decide;
};
// Chooses one of them at random. It gives the same answer every time.
named_fate choose_fate(dice* rolls, const std::vector<loose_end>& ends);
