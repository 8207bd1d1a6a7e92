// The samples that the commands of a campaign work on, each kind made of a seed and kept.
// Below: workshop.h. Above: the drivers of the campaigns.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "campaign/workshop.h"

enum class sample_kind {
    crashed,       // the power failed; the journal says abnormal
    read_only,     // the same, and the journal says read-only
    clean,         // shut down cleanly
    lone,          // the same, and there is one volume
    lone_crashed,  // one volume; the power failed
    no_index,      // lone; the index is gone
    noisy,         // lone; the index is gone and the table's entries are noise
    repaired,      // lone; the table was noise, which is kept beside the rebuilt one
    worn,          // clean; in volume 1 a wrong count in the index and one in the table, a wrong
                   // count in a map and a damaged node in one
    imported,      // clean; volume 1 has a table and an index in @EP_FIX that are not linked
};

struct sample {
    std::string tree;
    std::string map;  // path below the tree of a LUN's map of volume 1; of worn: the damaged one
};

class sample_store {
public:
    explicit sample_store(const workshop& shop) : shop_(shop) {}
    const sample& get(sample_kind kind, uint64_t seed);

private:
    void forget_old(uint64_t seed);
    const workshop& shop_;
    std::map<std::pair<sample_kind, uint64_t>, sample> samples_;
};
