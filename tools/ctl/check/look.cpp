#include "ctl/check/look.h"

#include "ctl/check/frozen.h"
#include "ctl/check/silence.h"

static constexpr size_t OVERLAY_BLOCKS_MAX = size_t{1} << 20;

// What a pending journal would change is changed in memory. After a refusal the files are looked at
// as they are. Returns whether a copy of them was made first.
static bool replay_pending(server_look* look, bool freeze_first) {
    bool frozen = false;
    if (look->state.request->raw) {
        look->mode = check_mode::raw;
        return false;
    }
    look->overlay = std::make_unique<io_overlay>(OVERLAY_BLOCKS_MAX);
    if (freeze_first) {
        frozen = freeze(look->state.server) == freeze_end::frozen;
        if (!frozen) {
            look->overlay.reset();
            look->overlay = std::make_unique<io_overlay>(OVERLAY_BLOCKS_MAX);
        }
    }
    memory_replay replay = replay_into_memory(*look->overlay);
    if (replay.end == replay_end::replayed) {
        look->mode = check_mode::as_if_replayed;
    } else if (replay.end == replay_end::refused) {
        look->overlay.reset();
        look->refusal = std::move(replay);
    }
    return frozen;
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

static void take_volumes(check_state* state) {
    for (const volume_files& files : state->server.volumes) {
        if (files.chosen) {
            state->volumes.emplace_back();
            state->volumes.back().files = &files;
        }
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

// One look. `moved`: the service wrote while it lasted, so that what was seen is of different
// moments.
static bool look_once(server_look* look, bool freeze_first, const look_taker& take,
                      std::string* problem, bool* moved) {
    if (!list_server(&look->state.server, problem) ||
        !choose_volumes(look->state.request->volumes, &look->state.server, problem)) {
        return false;
    }
    take_volumes(&look->state);
    look->journal = journal_now(look->state.server);
    const bool frozen = replay_pending(look, freeze_first && look->journal);
    if (look->refusal) {
        report_refusal(&look->state, *look->refusal);
    }
    check_headers(&look->state);
    if (!take(look, problem)) {
        return false;
    }
    *moved = has_other_files(look->state.server) ||
             (!frozen && look->journal != journal_now(look->state.server));
    return true;
}

static constexpr int LOOKS_MAX = 4;  // the first one without a copy

look_end keep_look_at_server(const check_request& request, const look_taker& take,
                             std::unique_ptr<server_look>* kept, std::string* problem) {
    const quiet_log quiet;
    bool moved = true;
    for (int looks = 0; moved && looks < LOOKS_MAX; looks++) {
        kept->reset();  // only one overlay can be on
        *kept = std::make_unique<server_look>();
        (*kept)->state.request = &request;
        const bool looked = look_once(kept->get(), looks > 0, take, problem, &moved);
        if (request.progress != nullptr) {
            request.progress->clear();
        }
        if (!looked) {
            return look_end::failed;
        }
    }
    return moved ? look_end::moving : look_end::still;
}

look_end look_at_server(const check_request& request, const look_taker& take,
                        std::string* problem) {
    std::unique_ptr<server_look> kept;
    return keep_look_at_server(request, take, &kept, problem);
}

const char* const NO_VOLUMES = "There is no volume with metadata of LUNs.";

const char* const STILL_WRITING =
    "The service wrote all the time, more than this command could follow. Try again, or while it "
    "is paused.";
