#include "ctl/check/journal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "ctl/check/silence.h"
#include "ctl/json_line.h"
#include "jnl/jnl_block.h"
#include "jnl/jnl_commit.h"
#include "jnl/jnl_kinds.h"
#include "jnl/jnl_walk.h"
#include "journal_status.h"

std::string journal_status_word(uint32_t tag) {
    switch (tag) {
        case JNL_STATUS_INIT:
            return "init";
        case JNL_STATUS_SUCCESS:
            return "success";
        case JNL_STATUS_ABNORMAL:
            return "abnormal";
        case JNL_STATUS_BAD:
            return "bad";
        case JNL_STATUS_RO:
            return "read-only";
        default:
            return "";
    }
}

bool journal_was_closed(uint32_t tag) {
    return tag == JNL_STATUS_SUCCESS || tag == JNL_STATUS_INIT;
}

static const char* meaning_of(uint32_t tag) {
    switch (tag) {
        case JNL_STATUS_INIT:
            return "The journal was never used.";
        case JNL_STATUS_ABNORMAL:
            return "The service runs, or was not shut down cleanly; start-up replay will replay "
                   "it.";
        case JNL_STATUS_BAD:
            return "A replay or a check failed; start-up replay refuses until it is repaired.";
        case JNL_STATUS_RO:
            return "A volume could not be written; start-up replay will try again.";
        default:
            return "No journal has this status; start-up replay refuses.";
    }
}

bool journal_moment::operator==(const journal_moment& other) const {
    return newest == other.newest && header.jnl_last_trans_id == other.header.jnl_last_trans_id &&
           header.jnl_shutdown_tag == other.header.jnl_shutdown_tag;
}

std::optional<journal_moment> journal_now(const server_files& server) {
    if (server.journal_state != view_state::file) {
        return std::nullopt;
    }
    jnl_file jnl = {};
    header_view view;
    const scoped_fd fd =
        open_header(server.journal, JNL_CONST_NODES, JNL_VAR_NODES, &jnl.header, &view);
    if (view.error != 0 || view.bad_nodes != 0 ||
        jnl.header.head.magic_code != METADATA_MAGIC_CODE) {
        return std::nullopt;
    }
    jnl.fd = fd.get();
    jnl_commit newest = {};
    const uint64_t total = jnl.header.jnl_total_count;
    const silence out(stdout);
    if (!out.is_silent()) {
        return std::nullopt;  // the search prints: standard output may be the data of a LUN
    }
    const bool found = total != 0 && last_complete_commit(&jnl, &newest, total) == 1;
    return journal_moment{jnl.header, found ? newest.start_block.ej_header.jnl_transid : 0};
}

// A look at the ring.
struct window_look {
    check_state* state;
    jnl_file jnl;
    uint64_t total;         // blocks of the ring
    uint64_t file_blocks;   // that the file has room for
    uint64_t oldest_block;  // of the blocks that the walk visited
    uint32_t oldest_id;
    uint64_t visited;               // blocks
    std::set<uint32_t> ids;         // of the transactions
    std::set<uint64_t> impossible;  // blocks with a count over its maximum
};

static int add_at(check_state* state, finding_code code, uint64_t block) {
    const int number = add_finding(state, code, nullptr, JOURNAL_NAME);
    finding* added = &state->findings.back();
    added->place = place_kind::journal_block;
    added->first = block;
    added->count = 1;
    return number;
}

static bool has_impossible_count(const jnl_block* block) {
    for (const jnl_count& count : jnl_kind_of(block->type)->counts) {
        if (count.name != nullptr && jnl_value_at<uint8_t>(block, count.offset) > count.most) {
            return true;
        }
    }
    return false;
}

static int visit(void* context, const jnl_block* block, uint64_t number, uint64_t) {
    auto* look = static_cast<window_look*>(context);
    look->visited++;
    look->oldest_block = number;
    look->oldest_id = block->ej_header.jnl_transid;
    look->ids.insert(look->oldest_id);
    look->state->window.note(*block);
    if (has_impossible_count(block)) {
        look->impossible.insert(number);
    }
    return 0;
}

// The history ends before the window does. Whether it was cut: the block before is damaged; or,
// within the older transaction, a block is damaged or zero. Stores that block.
static bool is_cut(const window_look* look, uint64_t* where) {
    uint64_t at = jnl_previous_block(look->oldest_block, look->total);
    uint64_t first_empty = look->total;
    for (uint64_t steps = 0; look->visited + steps < look->total; steps++) {
        jnl_block block = {};
        const jnl_block_state found = jnl_block_get(&look->jnl, &block, at);
        if (found == jnl_block_state::damaged) {
            *where = at;
            return true;
        }
        if (found == jnl_block_state::unread) {
            return false;
        }
        if (found == jnl_block_state::empty) {
            first_empty = first_empty == look->total ? at : first_empty;
        } else if (block.ej_header.jnl_transid != look->oldest_id - 1) {
            return false;
        } else if (first_empty != look->total) {
            *where = first_empty;
            return true;
        } else if (block.ej_header.jnl_seq_num == 0) {
            return false;
        }
        if (first_empty != look->total && steps > JNL_BLOCK_RANKS) {
            return false;  // never written
        }
        at = jnl_previous_block(at, look->total);
    }
    return false;
}

static bool is_known_uuid(const check_state* state, const uuid_bytes& uuid) {
    for (const volume_check& volume : state->volumes) {
        if (memcmp(volume.table.tbl_uuid, uuid.data(), UUID_SIZE) == 0 ||
            memcmp(volume.index.fri_uuid, uuid.data(), UUID_SIZE) == 0) {
            return true;
        }
        for (const map_check& map : volume.maps) {
            if (memcmp(map.header.map_uuid, uuid.data(), UUID_SIZE) == 0) {
                return true;
            }
        }
    }
    return false;
}

// Whether a uuid that was not seen belongs to no file: every volume was looked at, and every file
// in it could be read.
static bool knows_every_uuid(const check_state* state) {
    const auto is_known = [](const volume_check& volume) {
        return volume.files->gaps.empty() &&
               std::all_of(volume.maps.begin(), volume.maps.end(), [](const map_check& map) {
                   return map.readable && (map.view.bad_nodes & 1) == 0;
               });
    };
    return state->volumes.size() == state->server.volumes.size() &&
           std::all_of(state->volumes.begin(), state->volumes.end(), is_known);
}

static std::string hex_of(const uuid_bytes& uuid) {
    return hex_of_bytes({reinterpret_cast<const char*>(uuid.data()), uuid.size()});
}

static bool is_volume_here(const check_state* state, const uuid_bytes& uuid) {
    return std::find(state->data_uuids.begin(), state->data_uuids.end(), uuid) !=
           state->data_uuids.end();
}

// Records of a volume that is not here: a replay would skip them, and the volume could never be
// made whole.
static void report_absent_volume(check_state* state, const uuid_bytes& uuid, uint32_t tag) {
    add_finding(state, finding_code::S07, nullptr, JOURNAL_NAME);
    finding* added = &state->findings.back();
    added->was = hex_of(uuid);
    if (journal_was_closed(tag)) {
        added->level = severity::note;
        added->detail = "The journal was closed cleanly: a replay has nothing to do.";
    }
}

static bool some_map_stays(const check_state* state) {
    const auto& maps = state->window.maps();
    return std::any_of(maps.begin(), maps.end(),
                       [](const auto& one) { return one.second.still_maps; });
}

static void report_unknown_uuids(check_state* state, uint32_t tag) {
    if (!knows_every_uuid(state)) {
        return;
    }
    uint64_t unknown = 0;
    uint64_t absent = 0;
    for (const uuid_bytes& uuid : state->window.tables()) {
        if (is_known_uuid(state, uuid)) {
            continue;
        }
        if (is_volume_here(state, uuid)) {
            unknown++;
        } else {
            absent++;
            report_absent_volume(state, uuid, tag);
        }
    }
    for (const auto& [uuid, window] : state->window.maps()) {
        unknown += is_known_uuid(state, uuid) ? 0 : 1;
    }
    const bool all_foreign =
        unknown + absent == state->window.maps().size() + state->window.tables().size();
    if (unknown == 0) {
        return;
    }
    // Maps that were deleted lawfully hold nothing at the end.
    const bool of_others = all_foreign && absent == 0 && some_map_stays(state);
    add_finding(state, of_others ? finding_code::S07 : finding_code::J05, nullptr, JOURNAL_NAME);
    finding* added = &state->findings.back();
    added->number = unknown;
    if (all_foreign) {
        added->detail = "None of its records concerns a file of this server.";
    }
    if (of_others && journal_was_closed(tag)) {
        added->level = severity::note;
    }
}

// The service wrote a newer transaction, of which not every block is there.
static void report_torn(check_state* state, const window_look* look, const jnl_commit& newest) {
    const uint64_t next = jnl_next_block(newest.last, look->total);
    const uint32_t id = newest.start_block.ej_header.jnl_transid;
    jnl_block block = {};
    const jnl_block_state found = jnl_block_get(&look->jnl, &block, next);
    const bool begun = found == jnl_block_state::good && block.ej_header.jnl_transid == id + 1;
    if (begun || found == jnl_block_state::damaged || look->jnl.header.jnl_last_trans_id > id) {
        add_at(state, finding_code::J06, next);
    }
}

// The newest transaction cannot be found. Stores the damaged block that is nearest to its record.
static bool is_newest_damaged(const window_look* look, uint64_t* where) {
    uint64_t forth = look->jnl.header.jnl_last_record_start % look->total;
    uint64_t back = forth;
    for (uint64_t steps = 0; steps < std::min(look->total, JNL_BLOCK_RANKS); steps++) {
        for (const uint64_t at : {forth, back}) {
            jnl_block block = {};
            if (jnl_block_get(&look->jnl, &block, at) == jnl_block_state::damaged) {
                *where = at;
                return true;
            }
        }
        forth = jnl_next_block(forth, look->total);
        back = jnl_previous_block(back, look->total);
    }
    return false;
}

static void know_maps(check_state* state) {
    for (const volume_check& volume : state->volumes) {
        for (const map_check& map : volume.maps) {
            state->window.know(uuid_bytes_of(map.header.map_uuid));
        }
    }
}

static void look_at_window(window_look* look, uint32_t tag) {
    check_state* state = look->state;
    jnl_commit newest = {};
    const uint32_t budget = jnl_commit_budget(&look->jnl.header);
    int search = 0;
    int walked = 0;
    know_maps(state);
    {
        const silence out(stdout);
        if (!out.is_silent()) {
            (void)add_unread(state, nullptr, state->server.journal, EMFILE);
            return;  // the search prints
        }
        search = last_complete_commit(&look->jnl, &newest, look->total);
        walked = search == 1 ? jnl_walk_commits(&look->jnl, budget, "check", visit, look) : 0;
    }
    uint64_t where = 0;
    if (search < 0 && journal_was_closed(tag) && is_newest_damaged(look, &where)) {
        add_at(state, finding_code::J03, where);
        state->findings.back().level = severity::note;
    }
    if (search != 1 || walked < 0) {
        return;  // nothing to replay, or the replay refuses and says why
    }
    report_torn(state, look, newest);
    for (const uint64_t block : look->impossible) {
        add_at(state, finding_code::J04, block);
    }
    if (look->ids.size() < budget && look->visited < look->total && is_cut(look, &where)) {
        const int number = add_at(state, finding_code::J03, where);
        if (journal_was_closed(tag)) {
            state->findings.back().level = severity::note;
        } else if (state->replay_cause == NO_CAUSE && !state->request->raw) {
            state->replay_cause = number;
        }
    }
    report_unknown_uuids(state, tag);
}

// Counts of the header that no journal of this size can have.
static bool counts_are_possible(check_state* state, const jnl_header& header,
                                const header_view& view) {
    const uint64_t blocks = view.file_size <= METADATA_DATA_OFFSET
                                ? 0
                                : (view.file_size - METADATA_DATA_OFFSET) / DATA_NODE_SIZE;
    const char* field = nullptr;
    uint64_t value = 0;
    if (header.jnl_total_count == 0 || header.jnl_total_count > blocks) {
        field = "jnl_total_count";
        value = header.jnl_total_count;
    } else if (header.jnl_last_record_start >= header.jnl_total_count) {
        field = "jnl_last_record_start";
        value = header.jnl_last_record_start;
    }
    if (field != nullptr) {
        add_finding(state, finding_code::J04, nullptr, JOURNAL_NAME);
        state->findings.back().was = std::to_string(value);
        state->findings.back().detail = std::string("Field ") + field +
                                        " cannot have this value in a ring of " +
                                        std::to_string(blocks) + " blocks.";
    }
    return field == nullptr;
}

static bool report_header(check_state* state, const jnl_header& header, const header_view& view) {
    if (view.error != 0 && view.error != ENODATA) {
        add_unread(state, nullptr, state->server.journal, view.error);
        return false;
    }
    if (view.error != 0 || view.bad_nodes != 0 || header.head.magic_code != METADATA_MAGIC_CODE) {
        add_finding(state, finding_code::J02, nullptr, JOURNAL_NAME);
        return false;
    }
    if (header.jnl_shutdown_tag != JNL_STATUS_SUCCESS) {
        add_finding(state, finding_code::J01, nullptr, JOURNAL_NAME);
        const std::string word = journal_status_word(header.jnl_shutdown_tag);
        char number[16];
        snprintf(number, sizeof number, "0x%08x", header.jnl_shutdown_tag);
        state->findings.back().was = word.empty() ? number : word;
        state->findings.back().detail = meaning_of(header.jnl_shutdown_tag);
    }
    return counts_are_possible(state, header, view);
}

void check_journal(check_state* state) {
    if (state->server.journal_state == view_state::absent) {
        return;
    }
    window_look look = {};
    look.state = state;
    header_view view;
    const scoped_fd fd =
        open_header(state->server.journal, JNL_CONST_NODES, JNL_VAR_NODES, &look.jnl.header, &view);
    if (!report_header(state, look.jnl.header, view)) {
        return;
    }
    look.jnl.fd = fd.get();
    look.total = look.jnl.header.jnl_total_count;
    snprintf(look.jnl.path, sizeof look.jnl.path, "%s", state->server.journal.c_str());
    look_at_window(&look, look.jnl.header.jnl_shutdown_tag);
}
