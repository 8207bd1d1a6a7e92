// What all findings together come to.
#include "ctl/check/check.h"

// Consequences count as well: a verdict is never better than what was seen.
ctl_exit exit_of(const check_report& report) {
    severity worst = severity::note;
    bool complete = report.complete;
    for (const finding& one : report.findings) {
        complete = complete && one.code != finding_code::X01;
        worst = one.level > worst ? one.level : worst;
    }
    if (worst == severity::urgent) {
        return EXIT_URGENT;
    }
    if (worst == severity::damage) {
        return EXIT_DAMAGE;
    }
    if (!complete) {
        return EXIT_INCOMPLETE;
    }
    return worst == severity::count ? EXIT_COUNTS : EXIT_CLEAN;
}

const char* verdict_of(const check_report& report) {
    switch (exit_of(report)) {
        case EXIT_URGENT:
            return "urgent";
        case EXIT_DAMAGE:
            return "damage";
        case EXIT_INCOMPLETE:
            return "incomplete";
        case EXIT_COUNTS:
            return "counts";
        default:
            return "clean";
    }
}
