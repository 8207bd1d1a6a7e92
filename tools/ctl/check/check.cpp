#include "ctl/check/check.h"

#include <algorithm>
#include <chrono>

#include "ctl/check/compare.h"
#include "ctl/check/fold.h"
#include "ctl/check/look.h"
#include "ctl/check/maps.h"
#include "ctl/check/tables.h"
#include "ctl/records.h"

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
    progress_part table(state->request->progress, table_words(*volume), table_blocks(*volume));
    bool first_scan = true;
    while (ref_counts_begin_scan(counts)) {
        if (!first_scan) {
            plan_map_scan(*volume, state->request->progress);
        }
        scan_maps(state, volume, counts, first_scan);
        ref_counts_end_scan(counts);
        first_scan = false;
        if (volume->has_table) {
            check_groups(state, volume, counts, false, &table);
        }
    }
    if (volume->has_table) {
        check_groups(state, volume, counts, true, &table);
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
        progress_part table(state->request->progress, table_words(*volume), table_blocks(*volume));
        check_groups_alone(state, volume, &table);
    }
    if (volume->has_index && volume->has_table) {
        check_group_list(state, volume);
    }
    name_owners(state, volume);
    return true;
}

// A replay that refused, or whose history is cut short, leaves the files as no service would: what
// does not fit together then follows from that. A damaged block stays a finding of its own.
static bool may_be_phantom(finding_code code) {
    const char kind = finding_row_of(code)->name[0];
    return (kind == 'R' && code != finding_code::R05) ||
           (kind == 'F' && code != finding_code::F01) || code == finding_code::T02 ||
           code == finding_code::T03 || code == finding_code::M03 || code == finding_code::M08;
}

static void explain_phantoms(check_state* state) {
    for (finding& at : state->findings) {
        if (state->replay_cause != NO_CAUSE && at.because == NO_CAUSE && may_be_phantom(at.code)) {
            at.because = state->replay_cause;
        }
    }
}

// The work that the progress counts.
static void plan_scans(const check_state& state, bool maps_again) {
    progress_line* progress = state.request->progress;
    for (const volume_check& volume : state.volumes) {
        if (progress == nullptr || volume.files->state != volume_state::sound) {
            continue;
        }
        progress->plan(table_blocks(volume));
        if (!state.request->quick) {
            plan_map_scan(volume, progress);
        }
        if (maps_again) {
            plan_map_scan(volume, progress);
        }
    }
}

static bool run_steps(check_state* state, std::string* problem) {
    check_journal(state);
    check_places(state);
    for (volume_check& volume : state->volumes) {
        if (volume.files->state == volume_state::sound && !check_volume(state, &volume)) {
            *problem = "no memory for the counters";
            return false;
        }
    }
    explain_phantoms(state);
    return true;
}

// What a volume's table says, if all of it was read. Leaks are only known if every map was, and if
// no journal explains what does not fit together.
static volume_figures figures_of(const check_state* state, const volume_check& volume) {
    volume_figures figures;
    figures.volume = volume.files->root;
    figures.extent_size = extent_bytes(&volume);
    if (!volume.has_table || !volume.table_read) {
        return figures;
    }
    figures.used = volume.used_extents;
    figures.free = TBL_TOTAL_COUNT - std::min(volume.used_extents, TBL_TOTAL_COUNT);
    if (volume.all_maps_read && !state->request->quick && state->replay_cause == NO_CAUSE) {
        const auto leaked = volume.runs.find(finding_code::R04);
        figures.leaked =
            leaked == volume.runs.end() ? 0 : leaked->second.places - leaked->second.explained;
    }
    return figures;
}

check_report opening_of_look(const server_look& look) {
    check_report report;
    report.server = host_name();
    if (look.state.server.journal_state != view_state::absent) {
        report.journal_path = look.state.server.journal;
    }
    report.mode = look.mode;
    if (look.journal) {
        report.journal_status = journal_status_word(look.journal->header.jnl_shutdown_tag);
        report.journal_last_id = look.journal->header.jnl_last_trans_id;
    }
    for (const volume_check& volume : look.state.volumes) {
        if (volume.files->state != volume_state::plain) {
            report.volumes.push_back(volume.files->root);
            report.figures.push_back(figures_of(&look.state, volume));
        }
    }
    return report;
}

bool check_look(server_look* look, check_report* report, std::string* problem) {
    const inventory* known = look->state.request->known;
    plan_scans(look->state,
               known != nullptr && is_same_moment(look->state.server, *known, look->journal));
    if (!run_steps(&look->state, problem)) {
        return false;
    }
    *report = opening_of_look(*look);
    if (known != nullptr &&
        !compare_inventory(&look->state, *known, look->journal, &report->refusal)) {
        return true;
    }
    report->findings = std::move(look->state.findings);
    report->complete = look->state.complete;
    report->left_out = std::move(look->state.left_out);
    if (report->volumes.empty()) {
        report->complete = false;
        report->left_out.emplace_back(NO_VOLUMES);
    }
    return true;
}

bool check_server(const check_request& request, check_report* report, std::string* problem) {
    const auto begin = std::chrono::steady_clock::now();
    const auto take = [report](server_look* look, std::string* why) {
        return check_look(look, report, why);
    };
    const look_end end = look_at_server(request, take, problem);
    if (end == look_end::failed) {
        return false;
    }
    if (!report->refusal.empty()) {
        return true;
    }
    if (end == look_end::moving) {
        report->complete = false;
        report->findings.clear();
        for (volume_figures& figures : report->figures) {
            figures = {figures.volume, figures.extent_size, {}, {}, {}, {}};
        }
        report->left_out.emplace_back(STILL_WRITING);
    }
    finish_report(report);
    report->seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return true;
}
