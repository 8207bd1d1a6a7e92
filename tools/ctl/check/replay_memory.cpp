// The steps are those of start-up replay, in its order, but for these, which are left out:
//  - the locks: nothing is written that another run could write too
//  - setting the status of the journal, and its removal
//  - the guard against volumes that are mounted read-only: nothing is written to them
//  - the look for an interrupted repair before the first volume: the replay of each volume has the
//    same look, and what was replayed into memory before it is dropped
//  - the check of every volume, and the look for volumes that have maps but no tables: they find
//    what the caller looks for itself
//  - the sync
#include "ctl/check/replay_memory.h"

#include <cstdio>
#include <cstring>

#include "ctl/check/silence.h"
#include "handles/handle_set.h"
#include "journal_status.h"
#include "platform.h"
#include "store/keep_journal.h"
#include "store/log.h"
#include "store/overlay.h"
#include "volume/expected_volumes.h"
#include "volume/journal_state.h"
#include "volume/metadata_files.h"
#include "volume/option_scan.h"
#include "volume/volume_journal.h"

static constexpr const char* NAME = "replay_into_memory";

static memory_replay* listener = nullptr;

static void keep_line(const char* line) {
    listener->lines++;
    if (listener->log.size() < LINES_KEPT) {
        listener->log.emplace_back(line, strcspn(line, "\n"));
    }
}

// Alive: log lines go into the result.
class log_listener {
public:
    explicit log_listener(memory_replay* result) : before_(log_sink) {
        listener = result;
        log_sink = keep_line;
    }
    ~log_listener() {
        log_sink = before_;
        listener = nullptr;
    }
    log_listener(const log_listener&) = delete;
    log_listener& operator=(const log_listener&) = delete;

private:
    log_line_sink before_;
};

static int read_no_options(option_scan*, volume_paths*) {
    return 0;
}

static replay_end replay_all(volume_paths* paths) {
    ORBASpaceInfo* spaces = nullptr;
    const int listed = ORBASpaceInfoEnum(1, &spaces);
    const bool complete = all_volumes_there(listed, spaces);
    ORBASpaceInfoFree(spaces);
    option_scan no_options = {0, nullptr, read_no_options, 0};
    if (!complete || replay_all_vol_journal(paths, &no_options) != 0 ||
        keep_journal_failures().count != 0) {
        return replay_end::refused;
    }
    return replay_end::replayed;
}

static replay_end act_on_status(volume_paths* paths, uint32_t status) {
    switch (status) {
        case JNL_STATUS_INIT:
        case JNL_STATUS_SUCCESS:
            return replay_end::not_needed;
        case JNL_STATUS_RO:
        case JNL_STATUS_ABNORMAL:
            return replay_all(paths);
        case JNL_STATUS_BAD:
            log_err_as(NAME, "the journal %s is marked bad\n", paths->journal);
            return replay_end::refused;
        default:
            log_err_as(NAME, "the journal %s has the unknown status %08x\n", paths->journal,
                       status);
            return replay_end::refused;
    }
}

static replay_end replay_configured_journal(std::optional<uint32_t>* status) {
    volume_paths paths = {};
    if (get_jnl_root_path(&paths) != 0) {
        return replay_end::refused;  // logged there
    }
    const path_kind kind = kind_of_path(NAME, paths.journal);
    if (kind != path_kind::file) {
        return kind == path_kind::unknown ? replay_end::refused : replay_end::not_needed;
    }
    uint32_t tag = 0;
    if (tarn_get_journal_status(&paths, &tag) != 0) {
        return replay_end::refused;  // logged there
    }
    *status = tag;
    return act_on_status(&paths, tag);
}

memory_replay replay_into_memory(const io_overlay& overlay) {
    memory_replay result = {};
    const log_listener log(&result);
    // The replay prints its progress, and programs that list directories print their complaints.
    const silence out(stdout);
    const silence errors(stderr);
    if (io_overlay_on != &overlay || !out.is_silent() || !errors.is_silent()) {
        log_err("nothing to write into, or no silence\n");
        result.end = replay_end::refused;
        return result;
    }
    keep_journal_forget();
    result.end = replay_configured_journal(&result.status);
    result.damages = keep_journal_reasons().count - keep_journal_failures().count;
    result.ran_out = overlay.ran_out();
    close_files();
    (void)finish_handle_set();  // what it could not close is logged
    keep_journal_forget();
    return result;
}
