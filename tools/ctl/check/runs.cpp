#include "ctl/check/runs.h"

#include <algorithm>

static bool can_join(const place_run& one, const place_run& next) {
    return one.first + one.count == next.first && one.because == next.because;
}

static void join(place_run* one, const place_run& next) {
    one->count += next.count;
    one->was = one->was == next.was ? one->was : NO_VALUE;
    one->ought = one->ought == next.ought ? one->ought : NO_VALUE;
}

void add_place(run_list* list, const place_run& place) {
    list->places += place.count;
    list->explained += place.because != NO_CAUSE ? place.count : 0;
    if (!list->runs.empty() && can_join(list->runs.back(), place)) {
        join(&list->runs.back(), place);
    } else if (list->runs.size() < RUNS_MAX) {
        list->runs.push_back(place);
    } else {
        list->left_out += place.count;
    }
}

void settle_runs(run_list* list) {
    std::sort(list->runs.begin(), list->runs.end(), [](const auto& one, const auto& other) {
        return one.first != other.first ? one.first < other.first : one.because < other.because;
    });
    size_t kept = 0;
    for (size_t i = 1; i < list->runs.size(); i++) {
        if (can_join(list->runs[kept], list->runs[i])) {
            join(&list->runs[kept], list->runs[i]);
        } else {
            list->runs[++kept] = list->runs[i];
        }
    }
    list->runs.resize(list->runs.empty() ? 0 : kept + 1);
}
