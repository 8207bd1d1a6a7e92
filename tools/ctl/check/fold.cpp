#include "ctl/check/fold.h"

#include <algorithm>
#include <tuple>

#include "ctl/check/listing.h"

constexpr int CHAIN_MAX = 8;  // causes behind each other; a longer chain is a loop, and no chain

static void merge_ranges(std::vector<lea_range>* ranges) {
    std::sort(ranges->begin(), ranges->end(), [](const lea_range& a, const lea_range& b) {
        return std::tie(a.lea, a.count) < std::tie(b.lea, b.count);
    });
    std::vector<lea_range> merged;
    for (const lea_range& range : *ranges) {
        if (!merged.empty() && range.lea - merged.back().lea <= merged.back().count) {
            lea_range& last = merged.back();
            last.count = std::max(last.count, range.lea - last.lea + range.count);
        } else {
            merged.push_back(range);
        }
    }
    *ranges = std::move(merged);
}

static auto name_of(const finding_owner& owner) {
    return std::tie(owner.lun, owner.file, owner.kind);
}

static bool names_less(const finding_owner& a, const finding_owner& b) {
    return name_of(a) < name_of(b);
}

// -1, 0, 1: by the names of the owners.
static int compare_owners(const finding& a, const finding& b) {
    const auto less = [&](const finding& left, const finding& right) {
        return std::lexicographical_compare(left.owners.begin(), left.owners.end(),
                                            right.owners.begin(), right.owners.end(), names_less);
    };
    return less(a, b) ? -1 : (less(b, a) ? 1 : 0);
}

static bool ranges_less(const finding_owner& a, const finding_owner& b) {
    const auto less = [](const lea_range& left, const lea_range& right) {
        return std::tie(left.lea, left.count) < std::tie(right.lea, right.count);
    };
    return std::lexicographical_compare(a.ranges.begin(), a.ranges.end(), b.ranges.begin(),
                                        b.ranges.end(), less);
}

static auto home_of(const finding& of) {
    return std::tuple(std::tie(of.volume, of.code, of.file), is_rest(of), of.place);
}

static auto words_of(const finding& of) {
    return std::tie(of.level, of.extent_size, of.was, of.ought, of.detail, of.next, of.log);
}

// Everything but place and ranges: what is equal here is said in the same words.
static int compare_words(const finding& a, const finding& b) {
    if (home_of(a) != home_of(b)) {
        return home_of(a) < home_of(b) ? -1 : 1;
    }
    if (words_of(a) != words_of(b)) {
        return words_of(a) < words_of(b) ? -1 : 1;
    }
    return compare_owners(a, b);
}

static bool run_less(const finding& a, const finding& b) {
    const auto run_of = [](const finding& of) { return std::tie(of.first, of.count, of.number); };
    if (run_of(a) != run_of(b)) {
        return run_of(a) < run_of(b);
    }
    return std::lexicographical_compare(a.owners.begin(), a.owners.end(), b.owners.begin(),
                                        b.owners.end(), ranges_less);
}

// Whether it stands for the places from its first one on, and no others.
static bool is_run(const finding& of) {
    return of.place != place_kind::none && of.number == of.count;
}

// Whether `next`, which begins at or after `run`, continues it. Without a place only a finding that
// was made twice does.
static bool continues(const finding& run, const finding& next) {
    if (compare_words(run, next) != 0) {
        return false;
    }
    if (run.place == place_kind::none) {
        return run.number == 1 && next.number == 1;
    }
    return is_run(run) && is_run(next) && next.first - run.first <= run.count;
}

static void take_in(finding* run, const finding& next) {
    if (is_run(*run)) {
        run->count = std::max(run->count, next.first - run->first + next.count);
        run->number = run->count;
    }
    for (size_t i = 0; i < run->owners.size(); i++) {
        finding_owner& owner = run->owners[i];
        const finding_owner& more = next.owners[i];
        owner.ranges.insert(owner.ranges.end(), more.ranges.begin(), more.ranges.end());
        owner.ranges_left_out += more.ranges_left_out;
    }
}

// Owners and their ranges in order; a run stands for as many places as it has.
static void tidy(finding* of) {
    if (of->place != place_kind::none && of->number == 1) {
        of->count = std::max<uint64_t>(of->count, 1);
        of->number = of->count;
    }
    std::sort(of->owners.begin(), of->owners.end(),
              [](const finding_owner& a, const finding_owner& b) {
                  return names_less(a, b) || (!names_less(b, a) && ranges_less(a, b));
              });
    for (finding_owner& owner : of->owners) {
        merge_ranges(&owner.ranges);
    }
}

// How urgent a finding is beside others. What could not be read may be anything up to damage.
static int weight_of(const finding& of) {
    return of.code == finding_code::X01 ? 3 : 2 * static_cast<int>(of.level);
}

namespace {

// A merged finding, below the one that explains it.
struct node {
    finding of;
    size_t parent;  // in `nodes_`; SIZE_MAX: none
    int weight;     // of it and all its consequences
    std::vector<size_t> children;
};

class folder {
public:
    explicit folder(std::vector<finding> raw) : raw_(std::move(raw)) {}
    std::vector<finding> fold();

private:
    int depth_of(size_t number) const;
    void merge_level(const std::vector<size_t>& level);
    void link();
    bool node_less(size_t a, size_t b) const;
    void put(size_t number, int because, std::vector<finding>* folded);

    std::vector<finding> raw_;
    std::vector<node> nodes_;
    std::vector<size_t> node_of_;  // of each raw finding
};

// How many causes stand behind a finding; -1: the chain has no end, or leaves the list.
int folder::depth_of(size_t number) const {
    int depth = 0;
    while (raw_[number].because != NO_CAUSE) {
        const int because = raw_[number].because;
        if (depth == CHAIN_MAX || because < 0 || static_cast<size_t>(because) >= raw_.size()) {
            return -1;
        }
        number = static_cast<size_t>(because);
        depth++;
    }
    return depth;
}

// Findings of one depth, whose causes are merged already, become nodes.
void folder::merge_level(const std::vector<size_t>& level) {
    const auto parent_of = [&](size_t number) {
        const int because = raw_[number].because;
        return because == NO_CAUSE ? SIZE_MAX : node_of_[static_cast<size_t>(because)];
    };
    std::vector<size_t> order = level;
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
        if (parent_of(a) != parent_of(b)) {
            return parent_of(a) < parent_of(b);
        }
        const int words = compare_words(raw_[a], raw_[b]);
        return words != 0 ? words < 0 : run_less(raw_[a], raw_[b]);
    });
    bool is_first = true;
    for (const size_t number : order) {
        const size_t parent = parent_of(number);
        if (!is_first && nodes_.back().parent == parent &&
            continues(nodes_.back().of, raw_[number])) {
            take_in(&nodes_.back().of, raw_[number]);
        } else {
            nodes_.push_back({std::move(raw_[number]), parent, 0, {}});
        }
        is_first = false;
        node_of_[number] = nodes_.size() - 1;
    }
}

// The worst first, then where it lies; the words last, so that no two findings are equal.
bool folder::node_less(size_t a, size_t b) const {
    const node& left = nodes_[a];
    const node& right = nodes_[b];
    if (left.weight != right.weight) {
        return left.weight > right.weight;
    }
    if (home_of(left.of) != home_of(right.of)) {
        return home_of(left.of) < home_of(right.of);
    }
    if (left.of.first != right.of.first) {
        return left.of.first < right.of.first;
    }
    return a < b;  // nodes are in the order of their words
}

// Weights and children. A node stands after its parent.
void folder::link() {
    for (size_t i = nodes_.size(); i-- > 0;) {
        node& one = nodes_[i];
        tidy(&one.of);
        one.weight = std::max(one.weight, weight_of(one.of));
        if (one.parent != SIZE_MAX) {
            node& parent = nodes_[one.parent];
            parent.weight = std::max(parent.weight, one.weight);
            parent.children.push_back(i);
        }
    }
}

// At most CHAIN_MAX calls deep.
void folder::put(size_t number, int because, std::vector<finding>* folded) {
    node& one = nodes_[number];
    one.of.because = because;
    const int own = static_cast<int>(folded->size());
    folded->push_back(std::move(one.of));
    for (const size_t child : one.children) {
        put(child, own, folded);
    }
}

std::vector<finding> folder::fold() {
    std::vector<std::vector<size_t>> levels(CHAIN_MAX + 1);
    std::vector<int> depths(raw_.size());
    for (size_t i = 0; i < raw_.size(); i++) {
        tidy(&raw_[i]);
        depths[i] = depth_of(i);
    }
    for (size_t i = 0; i < raw_.size(); i++) {
        if (depths[i] < 0) {
            raw_[i].because = NO_CAUSE;
        }
        levels[static_cast<size_t>(std::max(depths[i], 0))].push_back(i);
    }
    node_of_.assign(raw_.size(), SIZE_MAX);
    for (const std::vector<size_t>& level : levels) {
        merge_level(level);
    }
    link();
    const auto less = [&](size_t a, size_t b) { return node_less(a, b); };
    std::vector<size_t> roots;
    for (size_t i = 0; i < nodes_.size(); i++) {
        std::sort(nodes_[i].children.begin(), nodes_[i].children.end(), less);
        if (nodes_[i].parent == SIZE_MAX) {
            roots.push_back(i);
        }
    }
    std::sort(roots.begin(), roots.end(), less);
    std::vector<finding> folded;
    folded.reserve(nodes_.size());
    for (const size_t root : roots) {
        put(root, NO_CAUSE, &folded);
    }
    return folded;
}

}  // namespace

std::vector<finding> fold_findings(std::vector<finding> raw) {
    return folder(std::move(raw)).fold();
}

void finish_report(check_report* report) {
    report->findings = fold_findings(std::move(report->findings));
    choose_next(report);
}
