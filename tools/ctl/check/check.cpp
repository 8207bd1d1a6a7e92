#include "ctl/check/check.h"

#include <chrono>
#include <memory>
#include <optional>
#include <unistd.h>

#include "ctl/check/fold.h"
#include "ctl/check/frozen.h"
#include "ctl/check/journal.h"
#include "ctl/check/maps.h"
#include "ctl/check/replay_memory.h"
#include "ctl/check/state.h"
#include "ctl/check/tables.h"
#include "store/log.h"
#include "store/overlay.h"

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

static bool run_steps(check_state* state, std::string* problem) {
    check_headers(state);
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

static void fill_report(check_state* state, check_report* report) {
    report->server = host_name();
    report->journal_path = state->server.journal;
    for (const volume_check& volume : state->volumes) {
        if (volume.files->state != volume_state::plain) {
            report->volumes.push_back(volume.files->root);
        }
    }
    report->findings = std::move(state->findings);
    report->complete = state->complete;
    report->left_out = std::move(state->left_out);
}

// Lines that rooms below log while they look: what they say is in the findings.
static void drop_line(const char*) {
}

class quiet_log {
public:
    quiet_log() : before_(log_sink) { log_sink = drop_line; }
    ~quiet_log() { log_sink = before_; }
    quiet_log(const quiet_log&) = delete;
    quiet_log& operator=(const quiet_log&) = delete;

private:
    log_line_sink before_;
};

// What a pending journal would change is changed in memory. After a refusal the files are looked at
// as they are: `refusal` says why, for a finding.
struct replayed {
    std::unique_ptr<io_overlay> overlay;
    std::optional<memory_replay> refusal;
    check_mode mode = check_mode::as_found;
};

static constexpr size_t OVERLAY_BLOCKS_MAX = size_t{1} << 20;

static replayed replay_pending(const check_request& request, const server_files& server,
                               bool freeze_first, bool* frozen) {
    replayed result;
    if (request.raw) {
        result.mode = check_mode::raw;
        return result;
    }
    result.overlay = std::make_unique<io_overlay>(OVERLAY_BLOCKS_MAX);
    if (freeze_first) {
        *frozen = freeze(server) == freeze_end::frozen;
        if (!*frozen) {
            result.overlay.reset();
            result.overlay = std::make_unique<io_overlay>(OVERLAY_BLOCKS_MAX);
        }
    }
    memory_replay replay = replay_into_memory(*result.overlay);
    if (replay.end == replay_end::replayed) {
        result.mode = check_mode::as_if_replayed;
    } else if (replay.end == replay_end::refused) {
        result.overlay.reset();
        result.refusal = std::move(replay);
    }
    return result;
}

static void report_refusal(check_state* state, const memory_replay& refusal) {
    state->replay_cause = add_finding(state, finding_code::J08, nullptr, JOURNAL_NAME);
    finding* added = &state->findings.back();
    added->log = refusal.log;
    if (refusal.ran_out) {
        added->detail = "The replay did not fit in memory: what it would find is not known.";
        state->complete = false;
    }
}

static std::vector<std::string> maps_of(const server_files& server) {
    std::vector<std::string> paths;
    for (const volume_files& volume : server.volumes) {
        for (const view_map& map : volume.maps) {
            paths.push_back(map.path);
        }
    }
    return paths;
}

// Whether a map came or went since the server was listed.
static bool has_other_files(const server_files& before) {
    server_files now;
    std::string problem;
    return list_server(&now, &problem) && maps_of(now) != maps_of(before);
}

// One look at the server. `moved`: the service wrote while it lasted, so that what was seen is of
// different moments.
static bool look(const check_request& request, bool freeze_first, check_report* report,
                 std::string* problem, bool* moved) {
    check_state state;
    state.request = &request;
    if (!list_server(&state.server, problem) ||
        !choose_volumes(request.volumes, &state.server, problem)) {
        return false;
    }
    take_volumes(&state);
    const std::optional<journal_moment> before = journal_now(state.server);
    bool frozen = false;
    const replayed replay = replay_pending(request, state.server, freeze_first && before, &frozen);
    if (replay.refusal) {
        report_refusal(&state, *replay.refusal);
    }
    if (!run_steps(&state, problem)) {
        return false;
    }
    const std::optional<journal_moment> after = journal_now(state.server);
    *moved = has_other_files(state.server) || (!frozen && before != after);
    *report = {};
    report->mode = replay.mode;
    if (before) {
        report->journal_status = journal_status_word(before->header.jnl_shutdown_tag);
        report->journal_last_id = before->header.jnl_last_trans_id;
    }
    fill_report(&state, report);
    return true;
}

static constexpr int LOOKS_MAX = 4;  // the first one without a copy

bool check_server(const check_request& request, check_report* report, std::string* problem) {
    const auto begin = std::chrono::steady_clock::now();
    const quiet_log quiet;
    bool moved = true;
    for (int looks = 0; moved && looks < LOOKS_MAX; looks++) {
        if (!look(request, looks > 0, report, problem, &moved)) {
            return false;
        }
    }
    if (moved) {
        report->complete = false;
        report->findings.clear();
        report->left_out.push_back(
            "The service wrote all the time, more than this check could follow. Check again, or "
            "while it is paused.");
    }
    finish_report(report);
    report->seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return true;
}
