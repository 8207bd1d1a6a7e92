#include "ctl/check/check.h"

#include <chrono>
#include <unistd.h>

#include "ctl/check/maps.h"
#include "ctl/check/state.h"
#include "ctl/check/tables.h"
#include "platform.h"

static constexpr size_t WINDOW_MIN = size_t{1} << 20;

// Counters for the references, in a smaller window if memory is short.
static ref_counts* open_counts(const check_state* state, const volume_check* volume) {
    ref_counts* counts = nullptr;
    for (size_t window = state->request->memory; counts == nullptr && window >= WINDOW_MIN;
         window /= 2) {
        counts = ref_counts_open(window, volume->extents);
    }
    return counts;
}

static bool check_references(check_state* state, volume_check* volume) {
    ref_counts* counts = open_counts(state, volume);
    if (counts == nullptr) {
        return false;
    }
    bool first_scan = true;
    while (ref_counts_begin_scan(counts)) {
        scan_maps(state, volume, counts, first_scan);
        ref_counts_end_scan(counts);
        first_scan = false;
        if (volume->has_table) {
            check_groups(state, volume, counts, false);
        }
    }
    if (volume->has_table) {
        check_groups(state, volume, counts, true);
    }
    ref_counts_close(counts);
    return true;
}

static bool check_volume(check_state* state, volume_check* volume) {
    if (volume->has_index) {
        check_index_blocks(state, volume);
    }
    if (!state->request->quick) {
        if (!check_references(state, volume)) {
            return false;
        }
    } else if (volume->has_table) {
        check_groups_alone(state, volume);
    }
    if (volume->has_index && volume->has_table) {
        check_group_list(state, volume);
    }
    name_owners(state, volume);
    return true;
}

static std::string host_name() {
    char name[256] = {};
    return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

static void take_volumes(check_state* state) {
    for (const volume_files& files : state->server.volumes) {
        if (files.chosen) {
            state->volumes.emplace_back();
            state->volumes.back().files = &files;
        }
    }
}

static bool run_steps(check_state* state, std::string* problem) {
    check_headers(state);
    check_places(state);
    for (volume_check& volume : state->volumes) {
        if (volume.files->state == volume_state::sound && !check_volume(state, &volume)) {
            *problem = "no memory for the counters";
            return false;
        }
    }
    return true;
}

static void fill_report(const check_state& state, check_report* report) {
    report->server = host_name();
    report->journal_path = state.server.journal;
    for (const volume_check& volume : state.volumes) {
        if (volume.files->state != volume_state::plain) {
            report->volumes.push_back(volume.files->root);
        }
    }
    report->findings = state.findings;
    report->complete = state.complete;
    report->left_out = state.left_out;
}

bool check_server(const check_request& request, check_report* report, std::string* problem) {
    const auto begin = std::chrono::steady_clock::now();
    check_state state;
    state.request = &request;
    if (!list_server(&state.server, problem) ||
        !choose_volumes(request.volumes, &state.server, problem)) {
        return false;
    }
    take_volumes(&state);
    if (!run_steps(&state, problem)) {
        return false;
    }
    fill_report(state, report);
    report->seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return true;
}
