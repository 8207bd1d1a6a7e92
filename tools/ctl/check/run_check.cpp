// The command `tarnctl check`.
#include "ctl/check/print.h"
#include "ctl/check/state_file.h"
#include "ctl/known/inventory.h"

int run_check(const check_request& request, const output_style& style) {
    check_request whole = request;
    progress_line progress(style.progress);
    whole.progress = &progress;
    inventory known;
    std::string problem;
    if (!request.inventory.empty()) {
        const kept_end end = read_inventory(request.inventory, &known, &problem);
        if (end != kept_end::read) {
            return end_of_kept(end, problem);
        }
        whole.known = &known;
    }
    check_report report;
    if (!check_server(whole, &report, &problem)) {
        return complain(problem);
    }
    if (!report.refusal.empty()) {
        return refuse(request.inventory + ": " + report.refusal);
    }
    const print_style how = {style.color, request.all, style.quiet};
    const bool printed =
        style.json ? print_check_json(stdout, report, how) : print_check_text(stdout, report, how);
    // What nobody could read is no verdict.
    const int result = printed ? exit_of(report) : cannot_write();
    const int saved = request.state.empty() ? 0 : save_state(request.state, report);
    return printed && saved != 0 ? saved : result;
}
