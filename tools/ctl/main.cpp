#include <cstdio>

#include "ctl/check/check.h"

int main() {
    check_report report;
    std::string problem;
    if (!check_server({}, &report, &problem)) {
        fprintf(stderr, "tarnctl: %s\n", problem.c_str());
        return EXIT_COULD_NOT_RUN;
    }
    print_check_text(report, false, true, false);
    return exit_of(report);
}
