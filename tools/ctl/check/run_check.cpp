// The command `tarnctl check`.
#include "ctl/check/print.h"
#include "ctl/check/state_file.h"

int run_check(const check_request& request, const output_style& style) {
    check_request with_progress = request;
    with_progress.progress = style.progress;
    check_report report;
    std::string problem;
    if (!check_server(with_progress, &report, &problem)) {
        return complain(problem);
    }
    const print_style how = {style.color, request.all, style.quiet};
    const bool printed =
        style.json ? print_check_json(stdout, report, how) : print_check_text(stdout, report, how);
    // What nobody could read is no verdict.
    const int result = printed ? exit_of(report) : cannot_write();
    const int saved = request.state.empty() ? 0 : save_state(request.state, report);
    return printed && saved != 0 ? saved : result;
}
