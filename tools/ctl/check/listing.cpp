#include "ctl/check/listing.h"

// For each finding the one at the beginning of its chain of causes. A cause stands before its
// consequence; a number that says otherwise is no cause.
static std::vector<size_t> roots_of(const std::vector<finding>& findings) {
    std::vector<size_t> roots(findings.size());
    for (size_t i = 0; i < findings.size(); i++) {
        const int because = findings[i].because;
        const bool has_cause = because >= 0 && static_cast<size_t>(because) < i;
        roots[i] = has_cause ? roots[static_cast<size_t>(because)] : i;
    }
    return roots;
}

bool is_rest(const finding& of) {
    return of.place == place_kind::none && of.number > 1;
}

namespace {

struct of_a_code {
    uint64_t listed = 0;
    size_t last = 0;  // in the listing
};

class lister {
public:
    lister(const check_report& report, bool all, uint64_t notes)
        : findings_(report.findings),
          all_(all),
          notes_(notes),
          roots_(roots_of(findings_)),
          place_(findings_.size(), SIZE_MAX) {}

    std::vector<listed_finding> list() {
        for (size_t i = 0; i < findings_.size(); i++) {
            if (roots_[i] != i) {
                count_under_cause(i);
            }
            if (roots_[i] == i || all_) {
                take(i);
            }
        }
        return std::move(listing_);
    }

private:
    void count_under_cause(size_t number) {
        const size_t place = place_[roots_[number]];
        if (place == SIZE_MAX) {
            return;  // the cause is left out itself
        }
        const finding& one = findings_[number];
        listing_[place].explains[one.code] += one.number;
        listing_[place].explains_urgent |= one.level == severity::urgent;
    }

    bool is_left_out(size_t number, const of_a_code& code) const {
        const finding& one = findings_[number];
        const uint64_t most = one.level == severity::note ? notes_ : LISTED_OF_A_CODE;
        return (code.listed >= most && !all_) || (code.listed > 0 && is_rest(one));
    }

    void take(size_t number) {
        of_a_code& code = codes_[findings_[number].code];
        if (is_left_out(number, code)) {
            listing_[code.last].left_out += findings_[number].number;
            return;
        }
        code.listed++;
        code.last = listing_.size();
        place_[number] = listing_.size();
        listing_.push_back({number, {}, false, 0});
    }

    const std::vector<finding>& findings_;
    bool all_;
    uint64_t notes_;
    std::vector<size_t> roots_;
    std::vector<size_t> place_;  // of a finding in the listing; SIZE_MAX: it is not listed
    std::map<finding_code, of_a_code> codes_;
    std::vector<listed_finding> listing_;
};

}  // namespace

std::vector<listed_finding> listing_of(const check_report& report, bool all, uint64_t notes) {
    return lister(report, all, notes).list();
}

finding_totals totals_of(const check_report& report) {
    const std::vector<size_t> roots = roots_of(report.findings);
    finding_totals totals;
    for (size_t i = 0; i < roots.size(); i++) {
        const finding& one = report.findings[i];
        if (roots[i] != i) {
            totals.consequences += one.number;
            continue;
        }
        const uint64_t count = is_rest(one) ? one.number : 1;
        totals.codes[one.code] += count;
        if (one.code == finding_code::X01) {
            totals.unreadable += count;
        } else {
            totals.levels[static_cast<size_t>(one.level)] += count;
        }
    }
    return totals;
}
