// What can be said of names alone: volumes, files that are missing or in the wrong place, and the
// numbers of the data files.
#include <cstring>

#include "ctl/check/state.h"
#include "volume/dat_file.h"

static void check_volume_root(check_state* state, const volume_check* volume) {
    const volume_files* files = volume->files;
    if (files->state == volume_state::missing || files->state == volume_state::empty) {
        add_finding(state, finding_code::S01, volume);
        state->findings.back().detail =
            files->state == volume_state::missing
                ? "The configuration names it, but there is no such directory."
                : "Its directory is empty, as a mount point is whose volume is not mounted.";
    } else if (!files->writable) {
        add_finding(state, finding_code::S01, volume);
        state->findings.back().level = severity::note;
        state->findings.back().detail = "It is mounted read-only.";
    }
}

static void check_tables_exist(check_state* state, const volume_check* volume) {
    const volume_files* files = volume->files;
    if (files->maps.empty()) {
        return;
    }
    const std::pair<view_state, const std::string*> tables[] = {
        {files->table_state, &files->table}, {files->index_state, &files->index}};
    for (const auto& [found, path] : tables) {
        if (found == view_state::absent) {
            add_finding(state, finding_code::H05, volume, below_root(volume, *path));
        }
    }
}

static void check_data_file_numbers(check_state* state, volume_check* volume) {
    const std::vector<view_data_file>& files = volume->files->data_files;
    // A directory that cannot be read may hold them.
    if (files.empty() && volume->files->gaps.empty() &&
        (volume->has_table || !volume->files->maps.empty())) {
        add_finding(state, finding_code::D05, volume);
    }
    uint64_t next = 0;
    for (const view_data_file& file : files) {
        if (file.number > next) {
            char name[64];
            snprintf(name, sizeof name, "%s/EP_DAT_%05u", EP_DIR, static_cast<unsigned>(next));
            add_finding(state, finding_code::D01, volume, name);
            finding* gap = &state->findings.back();
            gap->number = file.number - next;
            if (volume->shift != 0) {
                const uint64_t span = uint64_t{1} << (DAT_SPAN_SHIFT - volume->shift);
                add_place(&volume->runs[finding_code::D01],
                          {next * span, (file.number - next) * span, NO_VALUE, NO_VALUE,
                           static_cast<int>(state->findings.size()) - 1});
            }
        }
        next = file.number + 1;
    }
}

static void check_names(check_state* state, const volume_check* volume) {
    for (const std::string& path : volume->files->stranger_maps) {
        add_finding(state, finding_code::M10, volume, below_root(volume, path));
    }
    for (const std::string& path : volume->files->cut_paths) {
        add_finding(state, finding_code::M11, volume, below_root(volume, path));
    }
    for (const std::string& name : volume->files->work_directories) {
        add_finding(state, finding_code::S02, volume, name);
    }
    for (const view_gap& gap : volume->files->gaps) {
        add_unread(state, volume, gap.path, gap.error);
    }
}

// A journal that cannot be seen looks like none, and a service would start without its replay.
static void check_journal_root(check_state* state) {
    const std::string& root = state->server.lost_journal_root;
    if (!root.empty()) {
        add_finding(state, finding_code::S01, nullptr, root);
        state->findings.back().detail = "There is no such directory, and a journal would be there.";
    }
}

void check_places(check_state* state) {
    check_journal_root(state);
    for (volume_check& volume : state->volumes) {
        check_volume_root(state, &volume);
        if (volume.files->state == volume_state::sound) {
            check_tables_exist(state, &volume);
            check_names(state, &volume);
            check_data_file_numbers(state, &volume);
        }
    }
}
