#include "ctl/punch/punch.h"

#include <chrono>

#include "ctl/check/fold.h"
#include "ctl/punch/report.h"

static void find_ranges(const server_look& look, punch_report* report) {
    for (const volume_check& volume : look.state.volumes) {
        if (volume.files->state != volume_state::sound) {
            continue;
        }
        punch_volume added = {volume.files->root, extent_bytes(&volume), {}};
        std::string problem;
        if (!find_free_space(volume, &added.space, &problem)) {
            report->refusals.push_back({"", added.root, problem});
        }
        report->volumes.push_back(std::move(added));
    }
}

// Everything in one look: what was found to be sound is what the ranges are taken from.
static bool look_and_judge(server_look* look, punch_report* report, std::string* problem) {
    *report = {};
    if (!check_look(look, &report->opening, problem)) {
        return false;
    }
    finish_report(&report->opening);
    report->refusals = refusals_of(*look, report->opening);
    if (report->refusals.empty()) {
        find_ranges(*look, report);
    }
    return true;
}

int run_punch(const punch_request& request, const output_style& style) {
    const auto begin = std::chrono::steady_clock::now();
    check_request check;
    check.volumes = request.volumes;
    progress_line progress(style.progress);
    check.progress = &progress;
    punch_report report;
    std::string problem;
    const auto take = [&report](server_look* look, std::string* why) {
        return look_and_judge(look, &report, why);
    };
    const look_end end = look_at_server(check, take, &problem);
    if (end == look_end::failed) {
        return complain(problem);
    }
    if (end == look_end::moving) {
        report.refusals = {{"", "", STILL_WRITING}};
    }
    if (!report.refusals.empty()) {
        report.volumes.clear();
    }
    report.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const bool printed = style.json ? print_punch_json(stdout, report, style.quiet)
                                    : print_punch_text(stdout, stderr, report, style.quiet);
    if (!printed) {
        return cannot_write();
    }
    return report.refusals.empty() ? EXIT_CLEAN : EXIT_REFUSED;
}
