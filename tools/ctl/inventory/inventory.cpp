#include "ctl/inventory/inventory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <nlohmann/json.hpp>

#include "ctl/check/look.h"
#include "ctl/check/place_words.h"
#include "ctl/check/print.h"
#include "ctl/inventory/take.h"
#include "ctl/own_place.h"
#include "ctl/records.h"
#include "ctl/text/escape.h"

static std::string time_words() {
    const time_t now = time(nullptr);
    struct tm parts = {};
    char words[32] = {};
    (void)strftime(words, sizeof words, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&now, &parts));
    return words;
}

// What the comparison with an inventory is about, and what shows whose data are gone.
static bool concerns_inventory(const finding& of) {
    using enum finding_code;
    switch (of.code) {
        case S04:
        case S05:
        case S06:
        case S07:
        case S08:
        case S09:
        case S01:
        case D01:
        case R06:
        case X01:
            return true;
        case D02:
            return of.level != severity::note;
        default:
            return false;
    }
}

// Compares the server with an inventory. EXIT_CLEAN: the report is filled; otherwise the reason has
// been printed.
static int compare_with(const inventory& known, const std::string& path, const output_style& style,
                        check_report* report) {
    progress_line progress(style.progress);
    check_request request;
    request.known = &known;
    request.progress = &progress;
    std::string problem;
    if (!check_server(request, report, &problem)) {
        return complain(problem);
    }
    if (!report->refusal.empty()) {
        return refuse(shown(path) + ": " + report->refusal);
    }
    return EXIT_CLEAN;
}

// Returns whether anything else is wrong.
static bool keep_only_inventory(check_report* report) {
    bool other = false;
    for (finding& one : report->findings) {
        one.because = NO_CAUSE;
        other = other || (!concerns_inventory(one) && one.level != severity::note);
    }
    std::erase_if(report->findings, [](const finding& one) { return !concerns_inventory(one); });
    return other;
}

static int compare(const inventory_request& request, const output_style& style) {
    inventory known;
    std::string problem;
    const kept_end end = read_inventory(request.compare, &known, &problem);
    if (end != kept_end::read) {
        return end_of_kept(end, problem);
    }
    check_report report;
    const int status = compare_with(known, request.compare, style, &report);
    if (status != EXIT_CLEAN) {
        return status;
    }
    const bool other = keep_only_inventory(&report);
    const print_style how = {style.color, false, style.quiet, "inventory",
                             other ? "Nothing is missing or exchanged, but something else is "
                                     "wrong: run tarnctl check."
                                   : "Nothing is missing or exchanged."};
    const bool printed =
        style.json ? print_check_json(stdout, report, how) : print_check_text(stdout, report, how);
    return printed ? exit_of(report) : cannot_write();
}

// Whether a run of tarn holds the lock of a volume: it may be in the middle of a change. The lock
// is asked for and given back at once.
static bool is_locked(const server_files& server, std::string* problem) {
    for (const volume_files& volume : server.volumes) {
        const int opened = io_open(volume.root.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK, 0);
        const scoped_fd fd(opened > 0 ? opened : 0);
        if (opened > 0 && io_lock(opened) != 0 && errno == EWOULDBLOCK) {
            *problem = "a run of tarn works on " + shown(volume.root);
            return true;
        }
    }
    return false;
}

// A loss that the old inventory shows must not be forgotten: it stays, and says so again.
static int keep_what_is_missed(const std::string& path, const output_style& style) {
    inventory known;
    std::string problem;
    const kept_end end = read_inventory(path, &known, &problem);
    if (end == kept_end::absent) {
        return EXIT_CLEAN;
    }
    if (end != kept_end::read) {
        return end_of_kept(end, problem + "; move it away first");
    }
    check_report report;
    const int status = compare_with(known, path, style, &report);
    if (status != EXIT_CLEAN) {
        return status;
    }
    for (const finding& one : report.findings) {
        if (concerns_inventory(one) && one.level >= severity::damage) {
            return refuse(std::string(finding_row_of(one.code)->name) + ": " +
                          shown(subject_words(one)) + ": " + finding_row_of(one.code)->sentence +
                          " A new inventory would forget it. See: tarnctl inventory --compare " +
                          shell_word(path));
        }
    }
    return EXIT_CLEAN;
}

static int take_now(inventory* taken, const output_style& style) {
    check_request request;
    progress_line progress(style.progress);
    request.progress = &progress;
    std::string problem;
    std::string reason;
    const look_end end = look_at_server(
        request,
        [&](server_look* look, std::string*) {
            reason.clear();
            (void)take_inventory(look, taken, &reason);
            return true;
        },
        &problem);
    if (end == look_end::failed) {
        return complain(problem);
    }
    if (!reason.empty()) {
        return refuse(reason + ": an inventory would forget it");
    }
    if (taken->volumes.empty()) {
        return refuse(std::string(NO_VOLUMES) + " An inventory would forget one that is missing.");
    }
    return end == look_end::moving ? refuse(STILL_WRITING) : EXIT_CLEAN;
}

static int print_written(const std::string& path, const inventory& taken,
                         const output_style& style) {
    size_t maps = 0;
    for (const known_volume& volume : taken.volumes) {
        maps += volume.maps.size();
    }
    bool printed = true;
    if (style.json) {
        json_record record = {{"record", "inventory"},
                              {"written", taken.written},
                              {"volumes", taken.volumes.size()},
                              {"maps", maps}};
        add_file(&record, path);
        printed = put_record(stdout, start_record("inventory")) && put_record(stdout, record) &&
                  put_record(stdout, {{"record", "summary"},
                                      {"verdict", "written"},
                                      {"exit", static_cast<int>(EXIT_CLEAN)},
                                      {"complete", true}});
    } else if (!style.quiet) {
        printed = printf("%s: %s, %s.\n", shown(path).c_str(),
                         count_words(taken.volumes.size(), "volume").c_str(),
                         count_words(maps, "map").c_str()) > 0;
    }
    return printed && fflush(stdout) == 0 ? EXIT_CLEAN : cannot_write();
}

static int write(const inventory_request& request, const output_style& style) {
    std::string problem;
    std::string place;
    server_files server;
    if (!list_server(&server, &problem)) {
        return complain(problem);
    }
    if (!find_place(request.write, &place)) {
        return complain("cannot write " + shown(request.write) + ": " + strerror(errno));
    }
    problem = problem_of_place(place, server);
    if (!problem.empty()) {
        return refuse("nothing is written to " + shown(request.write) + ": " + problem);
    }
    if (is_locked(server, &problem)) {
        return refuse(problem);
    }
    inventory taken;
    int status = keep_what_is_missed(place, style);
    status = status == EXIT_CLEAN ? take_now(&taken, style) : status;
    if (status != EXIT_CLEAN) {
        return status;
    }
    if (is_locked(server, &problem)) {
        return refuse(problem);
    }
    taken.written = time_words();
    if (!write_inventory(place, taken, &problem)) {
        return complain(problem);
    }
    return print_written(request.write, taken, style);
}

int run_inventory(const inventory_request& request, const output_style& style) {
    return request.write.empty() ? compare(request, style) : write(request, style);
}
