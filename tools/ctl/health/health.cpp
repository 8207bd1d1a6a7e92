#include "ctl/health/health.h"

#include <ctime>

#include "ctl/health/print.h"

static bool print(const health_report& report, health_format format, const output_style& style) {
    switch (format) {
        case health_format::prometheus:
            return print_health_prometheus(stdout, report);
        case health_format::checkmk:
            return print_health_checkmk(stdout, report);
        case health_format::nagios:
            return print_health_nagios(stdout, report);
        case health_format::text:
            break;
    }
    return style.json ? print_health_json(stdout, report, style)
                      : print_health_text(stdout, report, style);
}

int run_health(const health_request& request, const output_style& style) {
    if (style.json && request.format != health_format::text) {
        fputs("tarnctl: --json goes with --format text only\nTry: tarnctl --help\n", stderr);
        return EXIT_USAGE;
    }
    server_facts facts = gather_facts();
    const bool listed = facts.problem.empty();
    if (!listed) {
        (void)complain(facts.problem);
        if (request.format == health_format::text) {
            return EXIT_COULD_NOT_RUN;
        }
    }
    const health_report report =
        judge_health(std::move(facts), read_state(request.state, this_machine()), request.state,
                     static_cast<uint64_t>(time(nullptr)));
    const bool printed = print(report, request.format, style);
    if (request.format == health_format::nagios) {
        constexpr int UNKNOWN = 3;
        return printed ? plugin_status(report) : (cannot_write(), UNKNOWN);
    }
    if (!printed) {
        return cannot_write();
    }
    return listed ? report.status : EXIT_COULD_NOT_RUN;
}
