// Ways in which a power failure may strike: what is lost of that which no sync covers.
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
// One of them, by chance. It answers the same however often it is asked.
named_fate choose_fate(dice* rolls, const std::vector<loose_end>& ends);
