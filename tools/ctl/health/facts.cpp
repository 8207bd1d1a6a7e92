#include "ctl/health/facts.h"

#include <algorithm>

#include "ctl/check/fold.h"
#include "ctl/check/journal.h"
#include "ctl/check/silence.h"
#include "ctl/check/state.h"
#include "ctl/records.h"
#include "journal_status.h"
#include "store/descriptor.h"

static constexpr int LOOKS_MAX = 4;

// One look. The findings are raw.
struct facts_look {
    check_state state;
    std::optional<journal_moment> journal;
    bool moved = false;  // the service wrote meanwhile
};

static bool look_once(facts_look* look, std::string* problem) {
    static const check_request request;
    check_state* state = &look->state;
    state->request = &request;
    if (!list_server(&state->server, problem) || !choose_volumes({}, &state->server, problem)) {
        return false;
    }
    look->journal = journal_now(state->server);
    check_journal(state);
    for (const volume_files& files : state->server.volumes) {
        if (files.state != volume_state::plain) {
            state->volumes.emplace_back();
            state->volumes.back().files = &files;
            if (files.state == volume_state::sound) {
                read_volume_headers(state, &state->volumes.back());
            }
        }
    }
    check_places(state);
    look->moved = look->journal != journal_now(state->server);
    return true;
}

// What this look cannot know: whose a journal's records are without the maps, and, before a replay,
// what it will make of the headers.
static bool is_knowable(const finding& of, const facts_look& look) {
    switch (of.code) {
        case finding_code::J05:
            return false;
        case finding_code::H01:
        case finding_code::H03:
        case finding_code::H04:
            return look.journal && look.journal->header.jnl_shutdown_tag == JNL_STATUS_SUCCESS;
        default:
            return true;
    }
}

static bool is_same(const finding& one, const finding& other) {
    return one.code == other.code && one.volume == other.volume && one.file == other.file &&
           one.first == other.first;
}

static bool is_among(const finding& of, const std::vector<finding>& others) {
    return std::any_of(others.begin(), others.end(),
                       [&of](const finding& other) { return is_same(of, other); });
}

// A check notes these and goes on; whoever watches a server has to act.
static void raise_level(finding* of) {
    const bool harmless = of->was == "init" || of->was == "abnormal";
    if (of->code == finding_code::S01 || (of->code == finding_code::J01 && !harmless)) {
        of->level = severity::damage;
    }
}

static void take_findings(facts_look* look, const std::vector<finding>& before,
                          check_report* report) {
    for (finding& one : look->state.findings) {
        if (is_knowable(one, *look) && (!look->moved || is_among(one, before))) {
            raise_level(&one);
            one.because = NO_CAUSE;
            one.next = "tarnctl check";
            report->findings.push_back(one);
        }
    }
    report->complete = look->state.complete;
    finish_report(report);
}

static volume_now volume_of(const volume_check& volume) {
    volume_now now = {volume.files->root, extent_bytes(&volume), {}, {}};
    if (volume.files->state != volume_state::sound) {
        return now;
    }
    if (volume.has_index && (volume.index_view.bad_nodes >> 2 & 1) == 0) {
        now.free = volume.index.fri_free_count;
    }
    const int64_t room = io_available(volume.files->root.c_str());
    if (room >= 0) {
        now.room = static_cast<uint64_t>(room);
    }
    return now;
}

static std::string status_of(const facts_look& look) {
    if (look.journal) {
        return journal_status_word(look.journal->header.jnl_shutdown_tag);
    }
    return look.state.server.journal_state == view_state::absent ? "none" : "";
}

static void fill_facts(facts_look* look, const std::vector<finding>& before, server_facts* facts) {
    check_report* report = &facts->report;
    report->server = host_name();
    report->journal_path = look->state.server.journal;
    report->journal_status = status_of(*look);
    for (const volume_check& volume : look->state.volumes) {
        report->volumes.push_back(volume.files->root);
        facts->volumes.push_back(volume_of(volume));
    }
    take_findings(look, before, report);
}

server_facts gather_facts() {
    const quiet_log quiet;
    server_facts facts;
    std::vector<finding> before;
    for (int looks = 1;; looks++) {
        facts_look look;
        if (!look_once(&look, &facts.problem)) {
            return facts;
        }
        if (!look.moved || looks == LOOKS_MAX) {
            fill_facts(&look, before, &facts);
            return facts;
        }
        before = std::move(look.state.findings);
    }
}
