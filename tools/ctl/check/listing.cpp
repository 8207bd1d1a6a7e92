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

namespace {
struct of_a_code {
    uint64_t listed = 0;
    size_t last = 0;  // in the listing
};
}  // namespace

std::vector<listed_finding> listing_of(const check_report& report, bool all) {
    const std::vector<size_t> roots = roots_of(report.findings);
    std::vector<listed_finding> listing;
    std::vector<size_t> place(report.findings.size(), SIZE_MAX);  // in the listing
    std::map<finding_code, of_a_code> codes;
    for (size_t i = 0; i < roots.size(); i++) {
        const finding& one = report.findings[i];
        if (roots[i] != i && place[roots[i]] != SIZE_MAX) {
            listed_finding& cause = listing[place[roots[i]]];
            cause.explains++;
            cause.explains_urgent += one.level == severity::urgent ? 1 : 0;
        }
        if (roots[i] != i && !all) {
            continue;
        }
        of_a_code& code = codes[one.code];
        if (code.listed == LISTED_OF_A_CODE && !all) {
            listing[code.last].left_out++;
            continue;
        }
        code.listed++;
        code.last = listing.size();
        place[i] = listing.size();
        listing.push_back({i});
    }
    return listing;
}

finding_totals totals_of(const check_report& report) {
    const std::vector<size_t> roots = roots_of(report.findings);
    finding_totals totals;
    for (size_t i = 0; i < roots.size(); i++) {
        const finding& one = report.findings[i];
        if (roots[i] != i) {
            totals.consequences++;
            continue;
        }
        totals.codes[one.code]++;
        if (one.code == finding_code::X01) {
            totals.unreadable++;
        } else {
            totals.levels[static_cast<size_t>(one.level)]++;
        }
    }
    return totals;
}
