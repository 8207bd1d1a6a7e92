// The runs of a volume become findings, and a second look at the maps says whose data lie there.
#include <algorithm>

#include "ctl/check/map_nodes.h"

static constexpr size_t LISTED_MAX = 100;         // runs of a code
static constexpr size_t LISTED_MAX_ALL = 10000;   // with --all
static constexpr size_t OWNER_RANGES_MAX = 1000;  // of one map in one finding

// Extents whose owners are looked for, and the finding that they belong to.
struct owner_query {
    uint64_t first;
    uint64_t end;
    size_t finding;
};

static place_kind place_of(finding_code code) {
    switch (code) {
        case finding_code::T03:
        case finding_code::F02:
        case finding_code::F03:
        case finding_code::F04:
        case finding_code::F05:
        case finding_code::F06:
        case finding_code::F09:
            return place_kind::group;
        case finding_code::T04:
            return place_kind::block;
        default:
            return place_kind::lpa;
    }
}

// What a code claims is that something is absent: true only when every map was read.
static bool needs_every_map(finding_code code) {
    return code == finding_code::R03 || code == finding_code::R04 || code == finding_code::F06;
}

// The blocks and files whose findings were made when they were met: their runs only say which
// extents they hold.
static bool is_reported(finding_code code) {
    return code == finding_code::T01 || code == finding_code::D01;
}

static std::string value_text(uint32_t value) {
    return value == NO_VALUE ? "" : std::to_string(value);
}

// The file in which the places of a code are.
static std::string file_of(const volume_check* volume, finding_code code) {
    const char* name = finding_row_of(code)->name;
    const std::string& path = name[0] == 'F' ? volume->files->index : volume->files->table;
    return name[0] == 'D' ? "" : below_root(volume, path);
}

static finding* add_run(check_state* state, const volume_check* volume, finding_code code,
                        const place_run& run) {
    add_finding(state, code, volume, file_of(volume, code));
    finding* added = &state->findings.back();
    added->place = place_of(code);
    added->first = run.first;
    added->count = run.count;
    added->number = run.count;
    added->was = value_text(run.was);
    added->ought = value_text(run.ought);
    added->because = run.because;
    return added;
}

// Places without a run of their own.
static void add_rest(check_state* state, const volume_check* volume, finding_code code,
                     uint64_t places, int because) {
    if (places > 0) {
        add_finding(state, code, volume, file_of(volume, code));
        state->findings.back().number = places;
        state->findings.back().because = because;
    }
}

// The places that a cause explains are counted under it, unless all are to be listed.
static void add_explained(check_state* state, const volume_check* volume, finding_code code,
                          const run_list& list) {
    std::map<int, uint64_t> places;
    for (const place_run& run : list.runs) {
        if (run.because != NO_CAUSE) {
            places[run.because] += run.count;
        }
    }
    for (const auto& [because, count] : places) {
        add_rest(state, volume, code, count, because);
    }
}

static void add_runs(check_state* state, volume_check* volume, finding_code code, run_list* list,
                     std::vector<owner_query>* queries) {
    const size_t most = state->request->all ? LISTED_MAX_ALL : LISTED_MAX;
    settle_runs(list);
    size_t listed = 0;
    uint64_t rest = list->left_out;
    for (const place_run& run : list->runs) {
        if (run.because != NO_CAUSE && !state->request->all) {
            continue;
        }
        if (listed == most) {
            rest += run.count;
            continue;
        }
        listed++;
        (void)add_run(state, volume, code, run);
        if (place_of(code) == place_kind::lpa) {
            queries->push_back({run.first, run.first + run.count, state->findings.size() - 1});
        }
    }
    add_rest(state, volume, code, rest, NO_CAUSE);
    if (!state->request->all) {
        add_explained(state, volume, code, *list);
    }
}

// Fills the owners of the findings that the queries name.
class owner_finder {
public:
    owner_finder(check_state* state, const map_check* map, const std::vector<owner_query>& queries,
                 const std::vector<uint64_t>& ends)
        : state_(state), map_(map), queries_(queries), ends_(ends) {}

    void look_up(uint64_t lpa, uint64_t lea);

private:
    void add(size_t number, uint64_t lea);

    check_state* state_;
    const map_check* map_;
    const std::vector<owner_query>& queries_;  // by their first extent
    const std::vector<uint64_t>& ends_;        // the highest end of the queries up to each
};

void owner_finder::add(size_t number, uint64_t lea) {
    finding* target = &state_->findings[number];
    if (target->owners.empty() || target->owners.back().file != map_->file->below) {
        target->owners.push_back(owner_of(*map_));
    }
    std::vector<lea_range>* ranges = &target->owners.back().ranges;
    if (!ranges->empty() && ranges->back().lea + ranges->back().count == lea) {
        ranges->back().count++;
    } else if (ranges->size() < OWNER_RANGES_MAX) {
        ranges->push_back({lea, 1});
    } else {
        target->owners.back().ranges_left_out++;
    }
}

void owner_finder::look_up(uint64_t lpa, uint64_t lea) {
    auto at = std::upper_bound(
        queries_.begin(), queries_.end(), lpa,
        [](uint64_t wanted, const owner_query& query) { return wanted < query.first; });
    while (at != queries_.begin()) {
        --at;
        if (ends_[static_cast<size_t>(at - queries_.begin())] <= lpa) {
            return;
        }
        if (lpa < at->end) {
            add(at->finding, lea);
        }
    }
}

static void find_owners(check_state* state, const volume_check* volume,
                        std::vector<owner_query>* queries) {
    std::sort(queries->begin(), queries->end(), [](const auto& one, const auto& other) {
        return one.first != other.first ? one.first < other.first : one.finding < other.finding;
    });
    std::vector<uint64_t> ends;
    for (const owner_query& query : *queries) {
        ends.push_back(std::max(ends.empty() ? 0 : ends.back(), query.end));
    }
    for (const map_check& map : volume->maps) {
        if (!map.readable) {
            continue;  // reported by the first look, as is what cannot be read here
        }
        owner_finder finder(state, &map, *queries, ends);
        (void)read_map_nodes(map, [&](const map_node_view& node) {
            for (uint32_t slot = 0; slot < node.entries; slot++) {
                const map_entry entry = entry_of(node, slot);
                if (map_entry_is_mapped(&entry) != 0) {
                    finder.look_up(map_entry_get_lpa(&entry), node.first_lea + slot);
                }
            }
        });
    }
}

// An extent that two maps use by mistake, beside one that nobody uses: the two together tell what
// happened, and that a rebuild would make it final.
static void explain_mix_up(check_state* state, const volume_check* volume, size_t first) {
    const auto is_code = [&](finding_code code) {
        return [code, volume](const finding& at) {
            return at.code == code && at.because == NO_CAUSE && at.volume == volume->files->root;
        };
    };
    const auto begin = state->findings.begin() + static_cast<ptrdiff_t>(first);
    const auto leaked = std::find_if(begin, state->findings.end(), is_code(finding_code::R04));
    if (leaked == state->findings.end()) {
        return;
    }
    for (auto at = begin; at != state->findings.end(); ++at) {
        if (is_code(finding_code::R02)(*at) && !at->owners.empty()) {
            at->detail = at->owners[0].lun +
                         (at->owners.size() > 1 ? " or " + at->owners[1].lun : "") +
                         " probably lost extent " + std::to_string(leaked->first) +
                         ", which is in use and in no map. A rebuild would make the mix-up legal.";
        }
    }
}

// More leaked extents than the smallest LUN has: a map may be gone.
static void explain_missing_map(check_state* state, const volume_check* volume, size_t first,
                                uint64_t leaked) {
    uint64_t smallest = ~uint64_t{0};
    for (const map_check& map : volume->maps) {
        if (map.file->place == map_place::lun && map.mapped > 0) {
            smallest = std::min(smallest, map.mapped);
        }
    }
    if (leaked < 64 || (smallest != ~uint64_t{0} && leaked < smallest)) {
        return;
    }
    for (size_t i = first; i < state->findings.size(); i++) {
        finding* at = &state->findings[i];
        if (at->code == finding_code::R04 && at->because == NO_CAUSE) {
            at->detail = std::to_string(leaked) +
                         " extents are in use and in no map: a map seems to be missing. Do not "
                         "rebuild.";
            return;
        }
    }
}

static void cannot_tell(check_state* state, const volume_check* volume, uint64_t places) {
    state->complete = false;
    state->left_out.push_back(volume->files->root + ": " + std::to_string(places) +
                              " places look leaked, overcounted or unlisted, but not every map "
                              "could be read: cannot tell.");
}

void name_owners(check_state* state, volume_check* volume) {
    const size_t first = state->findings.size();
    std::vector<owner_query> queries;
    uint64_t untold = 0;
    const uint64_t leaked =
        volume->runs.contains(finding_code::R04)
            ? volume->runs[finding_code::R04].places - volume->runs[finding_code::R04].explained
            : 0;
    for (auto& [code, list] : volume->runs) {
        if (is_reported(code)) {
            for (const place_run& run : list.runs) {
                queries.push_back(
                    {run.first, run.first + run.count, static_cast<size_t>(run.because)});
            }
        } else if (needs_every_map(code) && !volume->all_maps_read) {
            untold += list.places - list.explained;
        } else {
            add_runs(state, volume, code, &list, &queries);
        }
    }
    if (untold > 0) {
        cannot_tell(state, volume, untold);
    }
    if (!queries.empty() && !state->request->quick) {
        find_owners(state, volume, &queries);
    }
    explain_mix_up(state, volume, first);
    if (volume->all_maps_read && leaked > 0) {
        explain_missing_map(state, volume, first, leaked);
    }
}
