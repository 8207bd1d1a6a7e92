#include "ctl/export/source.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "ctl/check/lun_names.h"
#include "ctl/check/place_words.h"
#include "ctl/export/layout.h"
#include "ctl/export/service.h"
#include "ctl/text/escape.h"

static lun_answer refused(const std::string& reason) {
    return {EXIT_REFUSED, reason};
}

static std::string volumes_not_there(const server_files& server) {
    std::string words;
    for (const volume_files& volume : server.volumes) {
        if (volume.state == volume_state::missing || volume.state == volume_state::empty) {
            words += "\n" + shown(volume.root) + " is not mounted.";
        }
    }
    return words;
}

static bool is_lun(const view_map& map) {
    return map.place == map_place::lun || map.place == map_place::trash ||
           map.place == map_place::snapshot;
}

static lun_answer choose_lun(const std::string& name, lun_source* source) {
    const check_state& state = source->look->state;
    const std::vector<named_map> fitting = maps_named(state, name);
    if (fitting.size() != 1) {
        return refused(ambiguity_of(name, fitting) +
                       (fitting.empty() ? volumes_not_there(state.server) : ""));
    }
    source->volume = fitting[0].volume;
    source->map = fitting[0].map;
    if (!is_lun(*source->map->file)) {
        return refused("'" + shown(name) + "' is no LUN: no data of a LUN are found through it");
    }
    return {};
}

static std::string codes_of(const check_state& state, const volume_check& volume,
                            const map_check& map) {
    std::string codes;
    for (const finding& at : state.findings) {
        if (at.volume == volume.files->root && at.file == map.file->below) {
            codes += (codes.empty() ? "" : ", ") + std::string(finding_row_of(at.code)->name);
        }
    }
    return codes;
}

// Its identity, its length and its pool table; the other nodes hold counts.
static bool header_is_good(const map_check& map) {
    constexpr uint32_t NEEDED = 1u << 0 | 1u << 1 | 1u << 3;
    return map.readable && (map.view.bad_nodes & NEEDED) == 0 && map.pool_finding == NO_CAUSE &&
           (map.header.map_pool_cnt == 0 || !map.pools.empty()) &&
           map.header.map_total_count == map.entries;
}

static lun_answer judge_header(const lun_source& source, bool inconsistent) {
    const map_check& map = *source.map;
    const std::string path = shown(map.file->path);
    if (map.view.error != 0 && map.view.error != ENODATA) {
        const bool denied = map.view.error == EACCES || map.view.error == EPERM;
        return {denied ? EXIT_COULD_NOT_RUN : EXIT_DAMAGE,
                path + " cannot be read: " + strerror(map.view.error)};
    }
    if (!header_is_good(map)) {
        return {EXIT_DAMAGE, "the header of " + path + " is damaged (" +
                                 codes_of(source.look->state, *source.volume, map) +
                                 "): how long the LUN is, or where its data lie, is not known. "
                                 "Nothing was exported."};
    }
    if (source.volume->shift == 0) {
        return {EXIT_COULD_NOT_RUN,
                "the extent size of " + shown(source.volume->files->root) +
                    " is not known: its table cannot be read. Set extent_shift in platform.conf."};
    }
    if (source.volume->shift_is_doubtful && !inconsistent) {
        return {EXIT_DAMAGE,
                "the extent size of " + shown(source.volume->files->root) +
                    " cannot be trusted: it stands in a damaged part of the table's header. "
                    "Nothing was exported. With --inconsistent it is used as it is."};
    }
    const uint64_t most = std::numeric_limits<int64_t>::max() >> source.volume->shift;
    if (map.entries > most) {
        return {EXIT_DAMAGE, path + " has more extents than a file can have bytes"};
    }
    return {};
}

// Why the bytes would not be what a start of the service makes of them; empty: they would.
static std::string journal_problem(const server_look& look) {
    if (look.refusal) {
        const std::vector<std::string>& log = look.refusal->log;
        return "start-up replay would refuse" +
               (log.empty() ? "" : ":\n    " + shown(log.front())) + "\n";
    }
    for (const finding& at : look.state.findings) {
        const bool is_cut = at.code == finding_code::J03 || at.code == finding_code::J04;
        if (look.mode == check_mode::as_if_replayed && is_cut && at.level != severity::note) {
            return "the journal is damaged (" + std::string(finding_row_of(at.code)->name) +
                   "), and a replay would miss a part of it. ";
        }
    }
    return "";
}

static lun_answer look_at_lun(const std::string& name, lun_source* source, std::string* journal) {
    std::string problem;
    const look_taker take = [](server_look* look, std::string*) {
        check_journal(&look->state);
        return true;
    };
    const look_end end = keep_look_at_server(source->request, take, &source->look, &problem);
    if (end == look_end::failed) {
        return {EXIT_COULD_NOT_RUN, problem};
    }
    source->moving = end == look_end::moving;
    *journal = journal_problem(*source->look);
    return choose_lun(name, source);
}

static std::optional<journal_moment> journal_on_disk(const server_files& server) {
    const io_overlay_pause on_disk;
    return journal_now(server);
}

bool was_written_meanwhile(const lun_source& source) {
    return journal_on_disk(source.look->state.server) != source.before;
}

static const char* const SERVICE_RUNS =
    "what it writes during the export would be lost, or mixed with what was there before. "
    "Stop it, or use --inconsistent.";

// Before the look: who writes now. Later the journal shows it.
static lun_answer look_for_writers(bool inconsistent, lun_source* source) {
    server_files server;
    std::string problem;
    if (!list_server(&server, &problem)) {
        return {EXIT_COULD_NOT_RUN, problem};
    }
    source->before = journal_now(server);
    const std::string sign = sign_of_a_writer(server, source->before);
    if (!sign.empty() && !inconsistent) {
        return refused(sign + ": " + SERVICE_RUNS);
    }
    if (!sign.empty()) {
        source->warnings.push_back("Not of one moment: " + sign + ".");
    }
    return {};
}

// The files as they are, since no replay can be had of them.
static lun_answer look_without_replay(const std::string& name, const std::string& why,
                                      lun_source* source) {
    source->request.raw = true;
    std::string ignored;
    lun_answer answer = look_at_lun(name, source, &ignored);
    source->warnings.push_back("The files are read as they are, without the journal: " + why);
    return answer;
}

static lun_answer open_reader(lun_source* source) {
    lun_layout layout =
        layout_of(source->look->state, *source->volume, *source->map, &source->warnings);
    source->reader = std::make_unique<lun_reader>(std::move(layout));
    const int error = source->reader->open();
    return error == 0 ? lun_answer{}
                      : lun_answer{EXIT_COULD_NOT_RUN, shown(source->map->file->path) +
                                                           " cannot be read: " + strerror(error)};
}

lun_answer open_lun(const std::string& name, bool inconsistent, lun_source* source) {
    lun_answer answer = look_for_writers(inconsistent, source);
    std::string journal;
    if (answer.status == EXIT_CLEAN) {
        answer = look_at_lun(name, source, &journal);
    }
    if (answer.status == EXIT_CLEAN && !inconsistent &&
        (source->moving || was_written_meanwhile(*source))) {
        answer = refused(std::string("the service runs: ") + SERVICE_RUNS);
    }
    if (answer.status == EXIT_CLEAN && !journal.empty()) {
        answer = inconsistent
                     ? look_without_replay(name, journal, source)
                     : refused(journal +
                               "Look at it with `tarnctl check`. With --inconsistent the files "
                               "are read as they are, without the journal.");
    }
    if (answer.status == EXIT_CLEAN) {
        answer = judge_header(*source, inconsistent);
    }
    return answer.status == EXIT_CLEAN ? open_reader(source) : answer;
}

const char* why_missing(lun_stretch_kind kind) {
    switch (kind) {
        case lun_stretch_kind::bad_node:
            return "a damaged node of the map";
        case lun_stretch_kind::bad_row:
            return "an entry of the map that leads to no volume";
        case lun_stretch_kind::bad_lpa:
            return "an entry of the map that leads past every table";
        case lun_stretch_kind::no_file:
            return "a missing data file";
        case lun_stretch_kind::unread:
            return "data that cannot be read";
        default:
            return "";
    }
}
