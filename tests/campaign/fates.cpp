#include "campaign/fates.h"

#include <functional>

// A number below 100, always the same for a loose end or a file.
static uint64_t lot(uint64_t seed, uint64_t number) {
    return dice(seed ^ (number * 0xD1342543DE82EF95)).below(100);
}

static size_t all_of(const loose_end& end) {
    return end.changes.size();
}

static fate keep_by_chance(uint64_t seed, unsigned percent) {
    return [=](const loose_end& end) -> size_t {
        return lot(seed, end.index) < percent ? all_of(end)
                                              : lot(seed + 1, end.index) % (all_of(end) + 1);
    };
}

static fate keep_by_file(uint64_t seed) {
    return [=](const loose_end& end) -> size_t {
        return lot(seed, std::hash<std::string>()(end.file)) < 50 ? all_of(end) : 0;
    };
}

// A disk that writes in order: everything before one moment is kept.
static fate keep_up_to(size_t op) {
    return [=](const loose_end& end) {
        size_t kept = 0;
        while (kept < all_of(end) && end.changes[kept] < op) {
            kept++;
        }
        return kept;
    };
}

static size_t moment(dice* rolls, const std::vector<loose_end>& ends) {
    return ends[rolls->below(ends.size())].changes.front() + rolls->below(2);
}

named_fate choose_fate(dice* rolls, const std::vector<loose_end>& ends) {
    const uint64_t seed = rolls->next();
    const size_t count = ends.empty() ? 1 : ends.size();
    const size_t one = rolls->below(count);
    const unsigned percent[] = {10, 50, 90};
    switch (ends.empty() ? 0 : rolls->below(10)) {
        case 0:
            return {"nothing is lost", nullptr};
        case 1:
            return {"everything is lost", [](const loose_end&) -> size_t { return 0; }};
        case 2:
            return {"all but one is lost", [=](const loose_end& end) -> size_t {
                        return end.index == one ? all_of(end) : 0;
                    }};
        case 3:
            return {"one is lost", [=](const loose_end& end) -> size_t {
                        return end.index == one ? 0 : all_of(end);
                    }};
        case 4:
            return {"names are lost",
                    [](const loose_end& end) -> size_t { return end.is_name ? 0 : all_of(end); }};
        case 5:
            return {"data is lost",
                    [](const loose_end& end) -> size_t { return end.is_name ? all_of(end) : 0; }};
        case 6:
            return {"whole files are lost", keep_by_file(seed)};
        case 7:
            return {"the end is lost", keep_up_to(moment(rolls, ends))};
        default:
            return {"anything is lost", keep_by_chance(seed, percent[rolls->below(3)])};
    }
}
