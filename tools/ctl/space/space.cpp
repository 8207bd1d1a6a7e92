#include "ctl/space/space.h"

#include <algorithm>
#include <chrono>

#include "ctl/check/look.h"
#include "ctl/check/lun_names.h"
#include "ctl/check/maps.h"
#include "ctl/check/place_words.h"
#include "ctl/check/tables.h"
#include "ctl/space/report.h"
#include "ctl/text/escape.h"

using map_set = std::vector<const map_check*>;

// The maps that are to be deleted. False: a name fits none of them, or several; `refusal` says so.
static bool find_set(const space_request& request, const check_state& state, map_set* set,
                     std::string* refusal) {
    for (const std::string& name : request.if_deleted) {
        const std::vector<named_map> fitting = maps_named(state, name);
        if (fitting.size() != 1) {
            *refusal = ambiguity_of(name, fitting);
            return false;
        }
        if (std::find(set->begin(), set->end(), fitting[0].map) == set->end()) {
            set->push_back(fitting[0].map);
        }
    }
    return true;
}

static uint64_t key_of(const map_space& map, space_order order) {
    return order == space_order::name     ? 0
           : order == space_order::shared ? map.shared.extents
                                          : map.exclusive.extents;
}

static void sort_maps(space_order order, std::vector<map_space>* maps) {
    std::sort(maps->begin(), maps->end(), [order](const map_space& one, const map_space& other) {
        if (one.known != other.known) {
            return one.known;
        }
        const uint64_t key = key_of(one, order);
        const uint64_t other_key = key_of(other, order);
        return key != other_key ? key > other_key
                                : std::tie(one.name, one.file) < std::tie(other.name, other.file);
    });
}

// Whether the files are what a replay of the journal makes of them. What is wrong with it, the
// check reports.
static bool trusts_journal(check_state* state, space_report* report) {
    const size_t before = state->findings.size();
    check_journal(state);
    bool trusted = state->replay_cause == NO_CAUSE;
    for (size_t i = before; i < state->findings.size(); i++) {
        trusted = trusted && state->findings[i].code != finding_code::X01 &&
                  state->findings[i].level < severity::damage;
    }
    if (!trusted) {
        report->doubts.emplace_back(
            "The journal cannot be replayed, or not all of it: the figures are those of the files "
            "as they are, and none is sure. Run: tarnctl check");
    }
    return trusted;
}

static bool is_there(const volume_files& files, space_report* report) {
    if (files.state == volume_state::missing || files.state == volume_state::empty) {
        report->doubts.push_back(shown(files.root) +
                                 (files.state == volume_state::missing
                                      ? ": there is no such directory."
                                      : ": the directory is empty. Is the volume mounted?"));
    }
    return files.state == volume_state::sound;
}

// Findings of the headers and pool tables: what the figures are made of is in doubt. Those of maps
// whose entries could not be read are in the figures already.
static void doubt_headers(const check_state& state, space_report* report) {
    for (const finding& one : state.findings) {
        const char kind = finding_row_of(one.code)->name[0];
        const bool concerns = kind == 'H' || one.code == finding_code::M06;
        if (concerns && one.level >= severity::damage) {
            report->doubts.push_back(std::string(finding_row_of(one.code)->name) + " " +
                                     shown(subject_words(one)) + ": " +
                                     finding_row_of(one.code)->sentence + " Run: tarnctl check");
        }
    }
}

static bool measure(const space_request& request, server_look* look, space_report* report,
                    std::string* refusal, std::string* problem) {
    *report = {};
    report->opening = opening_of_look(*look);
    report->to_delete = request.if_deleted;
    if (report->opening.volumes.empty()) {
        report->doubts.emplace_back(NO_VOLUMES);
    }
    check_state* state = &look->state;
    map_set set;
    if (!find_set(request, *state, &set, refusal)) {
        return true;
    }
    progress_line* progress = state->request->progress;
    const bool sure = trusts_journal(state, report);
    doubt_headers(*state, report);
    for (const volume_check& volume : state->volumes) {
        if (progress != nullptr && volume.files->state == volume_state::sound) {
            progress->plan(table_blocks(volume));
            plan_map_scan(volume, progress);
        }
    }
    for (volume_check& volume : state->volumes) {
        if (!is_there(*volume.files, report)) {
            continue;
        }
        volume_space space;
        if (!measure_volume(state, &volume, set, request.memory, sure, &space)) {
            *problem = "no memory for the owners of extents";
            return false;
        }
        sort_maps(request.order, &space.maps);
        for (const std::string& sentence : sure ? doubts_of(space) : std::vector<std::string>()) {
            report->doubts.push_back(sentence);
        }
        for (const std::string& sentence : sure ? notes_of(space) : std::vector<std::string>()) {
            report->notes.push_back(sentence);
        }
        report->volumes.push_back(std::move(space));
    }
    return true;
}

int run_space(const space_request& request, const output_style& style) {
    const auto begin = std::chrono::steady_clock::now();
    check_request look_request;
    look_request.volumes = request.volumes;
    look_request.memory = request.memory;
    progress_line progress(style.progress);
    look_request.progress = &progress;
    space_report report;
    std::string refusal;
    std::string problem;
    const auto take = [&](server_look* look, std::string* why) {
        refusal.clear();
        return measure(request, look, &report, &refusal, why);
    };
    const look_end end = look_at_server(look_request, take, &problem);
    if (end == look_end::failed) {
        return complain(problem);
    }
    if (!refusal.empty()) {
        return refuse(refusal);
    }
    if (end == look_end::moving) {
        report.volumes.clear();
        report.notes.clear();
        report.doubts = {STILL_WRITING};
    }
    report.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const bool printed = style.json ? print_space_json(stdout, report, style.quiet)
                                    : print_space_text(stdout, report, style.quiet);
    return printed ? exit_of(report) : cannot_write();
}
