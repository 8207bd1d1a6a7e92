// Start-up replay takes what it cannot read for the end of history, skips what it cannot find, and
// deletes the journal when it is done. What it would lose is looked for before.
#include "ctl/guard/guard.h"

#include <cstring>
#include <nlohmann/json.hpp>

#include "ctl/check/look.h"
#include "ctl/check/map_nodes.h"
#include "ctl/check/place_words.h"
#include "ctl/known/inventory.h"
#include "ctl/records.h"
#include "ctl/text/escape.h"
#include "journal_status.h"
#include "store/log.h"

static constexpr const char* NAME = "guard";

namespace {

// What speaks against a replay, each with its code; X01: something could not be looked at.
struct reason {
    finding_code code;
    std::string words;
};

}  // namespace

static void add_reason(std::vector<reason>* reasons, const finding& of) {
    const std::string detail = of.detail.empty() ? "" : " " + shown(of.detail);
    reasons->push_back(
        {of.code, subject_words(of) + ": " + finding_row_of(of.code)->sentence + detail});
}

static bool is_pending(const std::optional<journal_moment>& journal) {
    return journal && (journal->header.jnl_shutdown_tag == JNL_STATUS_ABNORMAL ||
                       journal->header.jnl_shutdown_tag == JNL_STATUS_RO);
}

// Codes that stop a replay wherever they come up; some of them only when there is one to be done.
static bool stops(const finding& of, bool pending) {
    using enum finding_code;
    switch (of.code) {
        case S01:
        case H05:
            return true;
        case J03:
        case M01:
        case S07:
            return pending;
        case X01:  // of no volume: the journal, and nobody knows whether a replay is due
            return pending || of.volume.empty();
        default:
            return false;
    }
}

// The replay writes into this map.
static bool is_touched(const check_state& state, const map_check& map) {
    return map.readable && state.window.maps().contains(uuid_bytes_of(map.header.map_uuid));
}

static void look_at_touched_map(check_state* state, const volume_check* volume,
                                const map_check& map) {
    uint64_t first = 0;
    const map_reading reading = read_map_nodes(map, [&](const map_node_view& node) {
        first = node.damaged && first == 0 ? node.first_lea / MAP_NODE_ENTRIES + 1 : first;
    });
    if (reading.error != 0) {
        (void)add_unread(state, volume, map.file->path, reading.error);
    }
    if (reading.damaged > 0 || map.view.bad_nodes != 0) {
        (void)add_finding(state, finding_code::M01, volume, map.file->below);
        finding* added = &state->findings.back();
        added->number = std::max<uint64_t>(reading.damaged, 1);
        added->owners = {owner_of(map)};
        added->detail = "The journal has records for this map.";
    }
}

static void look_at_touched_maps(check_state* state) {
    for (const volume_check& volume : state->volumes) {
        for (const map_check& map : volume.maps) {
            if (is_touched(*state, map)) {
                look_at_touched_map(state, &volume, map);
            }
        }
    }
}

// What the files say as they are, before any replay.
static look_end look_before_replay(std::vector<reason>* reasons, std::string* problem) {
    check_request request;
    request.raw = true;
    return look_at_server(
        request,
        [reasons](server_look* look, std::string*) {
            reasons->clear();
            check_state* state = &look->state;
            check_journal(state);
            check_places(state);
            const bool pending = is_pending(look->journal);
            if (pending) {
                look_at_touched_maps(state);
            }
            for (const finding& one : state->findings) {
                if (stops(one, pending)) {
                    add_reason(reasons, one);
                }
            }
            return true;
        },
        problem);
}

// What an inventory misses, as if the journal had been replayed. False: `problem` says why nobody
// can tell.
static bool look_with_inventory(const std::string& path, std::vector<reason>* reasons,
                                std::string* problem) {
    inventory known;
    const kept_end end = read_inventory(path, &known, problem);
    if (end == kept_end::absent) {
        fprintf(stderr, "tarnctl: there is no inventory yet: %s\n", shown(path).c_str());
        return true;
    }
    check_request request;
    request.known = &known;
    check_report report;
    if (end != kept_end::read || !check_server(request, &report, problem)) {
        return false;
    }
    if (!report.refusal.empty()) {
        *problem = shown(path) + ": " + report.refusal;
        return false;
    }
    for (const finding& one : report.findings) {
        const bool asked = one.code == finding_code::S04 || one.code == finding_code::S05 ||
                           one.code == finding_code::S06;
        if (asked && one.level >= severity::damage) {
            add_reason(reasons, one);
        }
    }
    return true;
}

// For the administrator and for the log.
static void tell(const char* verdict, const reason& one) {
    const char* name = finding_row_of(one.code)->name;
    fprintf(stderr, "tarnctl: %s %s: %s\n", verdict, name, one.words.c_str());
    log_note_as(NAME, "%s %s: %s\n", verdict, name, one.words.c_str());
}

static bool print_json(const std::vector<reason>& reasons, const guard_request& request,
                       int status) {
    bool printed = put_record(stdout, start_record("guard"));
    for (const reason& one : reasons) {
        printed = printed && put_record(stdout, {{"record", "reason"},
                                                 {"code", finding_row_of(one.code)->name},
                                                 {"accepted", request.accepts.contains(one.code)},
                                                 {"words", one.words}});
    }
    return printed && put_record(stdout, {{"record", "summary"},
                                          {"verdict", status == EXIT_CLEAN ? "go" : "stop"},
                                          {"exit", status},
                                          {"complete", true}});
}

static int decide(const std::vector<reason>& reasons, const guard_request& request,
                  const output_style& style) {
    int status = EXIT_CLEAN;
    for (const reason& one : reasons) {
        const bool accepted = request.accepts.contains(one.code);
        status = accepted ? status : EXIT_REFUSED;
        tell(accepted ? "accepted" : "stopped by", one);
    }
    bool printed = true;
    if (style.json) {
        printed = print_json(reasons, request, status);
    } else if (status == EXIT_CLEAN && !style.quiet) {
        printed = puts("Start-up replay may begin.") >= 0;
    }
    if (!printed || fflush(stdout) != 0) {
        return cannot_write();
    }
    return status;
}

// Neither the configuration nor the server can be looked at: nothing says that a replay is safe.
static int stop(const std::string& why) {
    log_note_as(NAME, "stopped: %s\n", why.c_str());
    return refuse(why);
}

int run_guard(const guard_request& request, const output_style& style) {
    std::vector<reason> reasons;
    std::string problem;
    const look_end end = look_before_replay(&reasons, &problem);
    if (end != look_end::still) {
        return stop(end == look_end::failed ? problem : STILL_WRITING);
    }
    if (!request.inventory.empty() && !look_with_inventory(request.inventory, &reasons, &problem)) {
        return stop(problem);
    }
    return decide(reasons, request, style);
}
