// What findings of one volume say together: a leaked extent beside a shared one is a mix-up of
// LUNs, many leaked extents are a map that is gone.
#include <map>

#include "ctl/check/fold.h"

// A damaged node of a map loses 63 entries. More are no accident of one node.
constexpr uint64_t LOST_BY_ONE_NODE = 63;

namespace {
struct leaks {
    uint64_t extents = 0;
    uint64_t first = 0;
    bool is_shared = false;  // the volume has R02 as well
};
}  // namespace

static void add_sentence(finding* to, const std::string& sentence) {
    to->detail += (to->detail.empty() ? "" : " ") + sentence;
}

static std::map<std::string, leaks> leaks_by_volume(const std::vector<finding>& findings) {
    std::map<std::string, leaks> volumes;
    for (const finding& one : findings) {
        leaks& of = volumes[one.volume];
        of.is_shared = of.is_shared || one.code == finding_code::R02;
        if (one.code == finding_code::R04 && one.because == NO_CAUSE) {
            of.first = of.extents == 0 ? one.first : of.first;
            of.extents += one.count;
        }
    }
    return volumes;
}

static std::string extents_words(const leaks& of) {
    return of.extents == 1 ? "Extent " + std::to_string(of.first) + " of this volume is"
                           : std::to_string(of.extents) + " extents of this volume, from " +
                                 std::to_string(of.first) + " on, are";
}

static void warn_of_mix_up(finding* one, const leaks& of) {
    if (one->code == finding_code::R02) {
        add_sentence(one, extents_words(of) +
                              " in use and in no map (R04): one of these LUNs has "
                              "probably lost it. Do not rebuild: a rebuild would "
                              "make the mix-up legal.");
    } else if (one->code == finding_code::R04) {
        add_sentence(one,
                     "Other extents of this volume are mapped too often (R02): a LUN has "
                     "probably lost these and reads another LUN's data. Do not rebuild: a "
                     "rebuild would make the mix-up legal.");
    }
}

static void warn_of_missing_map(finding* one, leaks* of) {
    if (one->code == finding_code::R04 && one->because == NO_CAUSE &&
        of->extents > LOST_BY_ONE_NODE) {
        add_sentence(one, std::to_string(of->extents) +
                              " extents of this volume are in use and in no map: a map seems to "
                              "be missing. Do not rebuild.");
        of->extents = 0;  // said once
    }
}

void warn_of_mix_ups(std::vector<finding>* findings) {
    std::map<std::string, leaks> volumes = leaks_by_volume(*findings);
    for (finding& one : *findings) {
        leaks& of = volumes[one.volume];
        if (of.is_shared && of.extents > 0) {
            warn_of_mix_up(&one, of);
        } else {
            warn_of_missing_map(&one, &of);
        }
    }
}
