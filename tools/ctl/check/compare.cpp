// An inventory grows old: since it was written, LUNs may have been deleted, recreated and trimmed.
// So a map that is gone or another one is only noted, unless something shows that it went without
// the service: extents in use that no map refers to, records of the journal that leave its entries
// mapped, or a journal that has not moved since.
#include "ctl/check/compare.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ctl/check/compare_volumes.h"
#include "ctl/check/map_contents.h"
#include "ctl/check/place_words.h"
#include "journal_status.h"

namespace {

// A volume of the inventory and the one that it is now.
struct compared_volume {
    const known_volume* known;
    volume_check* now;
    bool is_judged;   // its references are known
    bool has_losses;  // the table counts references that no map holds
};

struct comparison {
    check_state* state;
    const inventory* known;
    bool same_moment;           // the service has not run since the inventory was written
    bool no_journal;            // deleted by a replay: nobody knows what was changed
    std::set<uuid_bytes> maps;  // of the server
    std::map<uuid_bytes, const known_map*> known_maps;
};

}  // namespace

static uuid_bytes uuid_of(const map_check& map) {
    return uuid_bytes_of(map.header.map_uuid);
}

static bool has_unclaimed(const check_state* state, const volume_check* volume) {
    return std::any_of(
        state->findings.begin(), state->findings.end(), [volume](const finding& one) {
            return (one.code == finding_code::R03 || one.code == finding_code::R04) &&
                   one.because == NO_CAUSE && one.volume == volume->files->root;
        });
}

static compared_volume pair_of(const check_state* state, const known_volume& known,
                               volume_check* now) {
    return {
        &known, now,
        now->has_table && now->table_read && now->all_maps_read && state->replay_cause == NO_CAUSE,
        has_unclaimed(state, now)};
}

// Whether a map that is gone went without the service.
static bool went_unlawfully(const comparison& all, const compared_volume* volume,
                            const known_map& map) {
    const auto window = all.state->window.maps().find(map.uuid);
    const bool still_maps = window != all.state->window.maps().end() && window->second.still_maps;
    if (volume == nullptr || !volume->is_judged) {
        return map.mapped > 0;
    }
    return volume->has_losses || still_maps || (all.same_moment && map.mapped > 0);
}

static finding* add_known(const comparison& all, finding_code code, const known_volume& volume,
                          const known_map& map) {
    add_finding(all.state, code, nullptr, map.below);
    finding* added = &all.state->findings.back();
    added->volume = volume.root;
    added->extent_size = volume.extent_size;
    added->owners = {{map.lun, map.kind, map.below, {}, 0}};
    return added;
}

static std::string noted_words(const comparison& all, const known_volume& volume,
                               const known_map& map) {
    return volume.root + "/" + map.below + " had " +
           size_words(bytes_of(map.mapped, volume.extent_size)) + " mapped on " +
           all.known->written + ".";
}

static void report_gone(const comparison& all, const known_volume& volume,
                        const compared_volume* pair, const known_map& map) {
    finding* added = add_known(all, finding_code::S04, volume, map);
    added->detail = noted_words(all, volume, map);
    if (!went_unlawfully(all, pair, map)) {
        added->level = severity::note;
        added->detail += " Nothing of it is left in the table: it was deleted.";
    }
}

static const map_check* map_at(const volume_check* volume, const std::string& below) {
    for (const map_check& map : volume->maps) {
        if (map.file->below == below) {
            return &map;
        }
    }
    return nullptr;
}

// Whether the file or a directory above it could not be looked at: nobody knows whether it is
// there. Something else in its place (EISDIR, EINVAL) was looked at.
static bool is_out_of_sight(const volume_check& volume, const std::string& below) {
    const std::string path = volume.files->root + "/" + below;
    return std::any_of(volume.files->gaps.begin(), volume.files->gaps.end(),
                       [&](const view_gap& gap) {
                           return path.starts_with(gap.path + "/") ||
                                  (path == gap.path && gap.error != EISDIR && gap.error != EINVAL);
                       });
}

static bool has_uuid(const map_check& map) {
    return map.readable && (map.view.bad_nodes & 1) == 0;
}

// Another map lies where this one was.
static void report_exchanged(const comparison& all, const compared_volume& volume,
                             const known_map& map, const map_check& now) {
    const auto before = all.known_maps.find(uuid_of(now));
    const bool swapped = before != all.known_maps.end() && before->second->kind != "trash";
    const bool lost = !all.maps.contains(map.uuid) && went_unlawfully(all, &volume, map);
    finding* added = add_known(all, finding_code::S05, *volume.known, map);
    added->detail = noted_words(all, *volume.known, map);
    if (before != all.known_maps.end()) {
        added->detail += " The map that lies here now was that of " + before->second->lun + ".";
    }
    if (!swapped && !lost) {
        added->level = severity::note;
        added->detail += " It seems to have been deleted, and the LUN recreated.";
    }
}

// The same map, perhaps with the contents of an earlier day.
static void compare_contents(const comparison& all, const compared_volume& volume,
                             const known_map& map, const map_check& now) {
    const auto window = all.state->window.maps().find(map.uuid);
    const bool changed_since =
        all.no_journal || (window != all.state->window.maps().end() &&
                           window->second.newest_id > all.known->journal_last_id);
    if (!all.same_moment && !(changed_since && volume.has_losses)) {
        return;
    }
    const map_contents contents = contents_of(now, all.state->request->progress);
    const bool same = contents.contents == map.contents && contents.mapped == map.mapped;
    if (!contents.whole || same == all.same_moment) {
        return;
    }
    finding* added = add_known(all, finding_code::S05, *volume.known, map);
    added->detail = noted_words(all, *volume.known, map);
    if (!same) {
        added->detail += " It now has " +
                         size_words(bytes_of(contents.mapped, volume.known->extent_size)) +
                         ", although the service has not run since: another state of the map was "
                         "put back.";
    } else if (all.no_journal) {
        added->level = severity::damage;
        added->detail +=
            " It holds just that, while the table counts references that no map holds: "
            "it may be an old map that was put back.";
    } else {
        added->detail +=
            " It holds just that, although the journal has newer changes to it: an old "
            "map was put back.";
    }
}

static void compare_map(const comparison& all, const compared_volume& volume,
                        const known_map& map) {
    const map_check* now = map_at(volume.now, map.below);
    if (now == nullptr && is_out_of_sight(*volume.now, map.below)) {
        return;  // X01 says so
    }
    if (now == nullptr) {
        if (!all.maps.contains(map.uuid)) {
            report_gone(all, *volume.known, &volume, map);
        } else if (map.kind == "lun" && volume.is_judged && volume.has_losses) {
            add_known(all, finding_code::S04, *volume.known, map)->detail =
                "Its map of " + all.known->written +
                " lies elsewhere. If the LUN was recreated since, the new map is lost: the table "
                "counts references that no map holds.";
        }
    } else if (has_uuid(*now)) {
        if (uuid_of(*now) == map.uuid) {
            compare_contents(all, volume, map, *now);
        } else {
            report_exchanged(all, volume, map, *now);
        }
    }
}

static void report_new_maps(const comparison& all, const volume_check& volume) {
    for (const map_check& map : volume.maps) {
        if (has_uuid(map) && !all.known_maps.contains(uuid_of(map))) {
            add_finding(all.state, finding_code::S09, &volume, map.file->below);
            all.state->findings.back().owners = {owner_of(map)};
        }
    }
}

bool is_same_moment(const server_files& server, const inventory& known,
                    const std::optional<journal_moment>& journal) {
    if (!journal) {
        return server.journal_state == view_state::absent && known.journal_status.empty();
    }
    return journal->header.jnl_shutdown_tag == JNL_STATUS_SUCCESS &&
           known.journal_status == journal_status_word(JNL_STATUS_SUCCESS) &&
           journal->header.jnl_last_trans_id == known.journal_last_id;
}

static comparison begin(check_state* state, const inventory& known,
                        const std::optional<journal_moment>& journal) {
    comparison all = {state, &known, false, false, {}, {}};
    all.no_journal = state->server.journal_state == view_state::absent;
    all.same_moment = is_same_moment(state->server, known, journal);
    for (const volume_check& volume : state->volumes) {
        for (const map_check& map : volume.maps) {
            if (has_uuid(map)) {
                all.maps.insert(uuid_of(map));
            }
        }
    }
    for (const known_volume& volume : known.volumes) {
        for (const known_map& map : volume.maps) {
            all.known_maps.try_emplace(map.uuid, &map);
        }
    }
    return all;
}

bool compare_inventory(check_state* state, const inventory& known,
                       const std::optional<journal_moment>& journal, std::string* problem) {
    if (!is_of_this_server(*state, known)) {
        *problem = "it is an inventory of another server (" + known.server +
                   "): none of its volumes is here";
        return false;
    }
    const comparison all = begin(state, known, journal);
    compare_volumes(state, known);
    for (const known_volume& volume : known.volumes) {
        volume_check* now = volume_now(state, volume);
        if (now == nullptr) {
            for (const known_map& map : volume.maps) {
                report_gone(all, volume, nullptr, map);
            }
            continue;
        }
        const compared_volume pair = pair_of(state, volume, now);
        for (const known_map& map : volume.maps) {
            compare_map(all, pair, map);
        }
    }
    for (const volume_check& volume : state->volumes) {
        report_new_maps(all, volume);
    }
    return true;
}
