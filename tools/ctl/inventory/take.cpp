#include "ctl/inventory/take.h"

#include <cerrno>
#include <cstring>

#include "ctl/check/map_contents.h"
#include "ctl/check/maps.h"
#include "ctl/records.h"
#include "ctl/text/escape.h"
#include "store/descriptor.h"

static bool take_map(const map_check& map, progress_line* progress, known_volume* out,
                     std::string* problem) {
    const std::string path = shown(map.file->path);
    if (map.view.error != 0 && map.view.error != ENODATA) {
        *problem = path + " cannot be read: " + strerror(map.view.error);
        return false;
    }
    if (!map.readable || map.view.bad_nodes != 0) {
        *problem = path + " has no sound header";
        return false;
    }
    const map_contents contents = contents_of(map, progress);
    if (!contents.whole || is_cut_short(map, contents.mapped)) {
        *problem = path + " is damaged or cannot be read";
        return false;
    }
    out->maps.push_back({map.file->below, map.file->name, kind_word(map.file->place),
                         uuid_bytes_of(map.header.map_uuid), map.entries, contents.mapped,
                         contents.end, contents.contents});
    return true;
}

static bool is_whole(const volume_check& volume, std::string* problem) {
    const volume_files* files = volume.files;
    const std::string root = shown(files->root);
    if (files->state == volume_state::missing || files->state == volume_state::empty) {
        *problem = root + " is not mounted";
    } else if (!files->gaps.empty()) {
        *problem = shown(files->gaps[0].path) + " cannot be read";
    } else if (!volume.has_table || volume.table_view.bad_nodes != 0) {
        *problem = root + " has no sound table";
    } else if (!volume.has_index || volume.index_view.bad_nodes != 0) {
        *problem = root + " has no sound index";
    } else if (files->data_files.empty()) {
        *problem = root + " has no data file";
    }
    return problem->empty();
}

static bool take_volume(const volume_check& volume, progress_line* progress, inventory* out,
                        std::string* problem) {
    if (!is_whole(volume, problem)) {
        return false;
    }
    struct stat64 status = {};
    if (io_stat(volume.files->root.c_str(), &status) != 0) {
        *problem = shown(volume.files->root) + ": " + strerror(errno);
        return false;
    }
    known_volume taken = {volume.files->root,
                          device_words(status.st_dev),
                          uuid_bytes_of(volume.table.tbl_uuid),
                          uuid_bytes_of(volume.index.fri_uuid),
                          extent_bytes(&volume),
                          {},
                          {}};
    for (const map_check& map : volume.maps) {
        if (!take_map(map, progress, &taken, problem)) {
            return false;
        }
    }
    for (const view_data_file& file : volume.files->data_files) {
        taken.data_files.push_back({file.number, file.size});
    }
    out->volumes.push_back(std::move(taken));
    return true;
}

// Two volumes with one uuid: an inventory could not tell them apart.
static bool has_twins(const inventory& taken, std::string* problem) {
    for (size_t i = 0; i < taken.volumes.size(); i++) {
        for (size_t j = i + 1; j < taken.volumes.size(); j++) {
            if (taken.volumes[i].table == taken.volumes[j].table) {
                *problem = shown(taken.volumes[j].root) + " has the uuids of " +
                           shown(taken.volumes[i].root);
                return true;
            }
        }
    }
    return false;
}

bool take_inventory(server_look* look, inventory* out, std::string* problem) {
    *out = {};
    out->server = host_name();
    out->tool = "tarnctl " TARN_VERSION;
    if (look->refusal) {
        *problem = "start-up replay would refuse the journal";
        return false;
    }
    check_journal(&look->state);
    if (look->journal) {
        out->journal_status = journal_status_word(look->journal->header.jnl_shutdown_tag);
        out->journal_last_id = look->journal->header.jnl_last_trans_id;
    }
    out->journal_names.assign(look->state.window.tables().begin(),
                              look->state.window.tables().end());
    for (const auto& [uuid, window] : look->state.window.maps()) {
        out->journal_names.push_back(uuid);
    }
    progress_line* progress = look->state.request->progress;
    for (const volume_check& volume : look->state.volumes) {
        plan_map_scan(volume, progress);
    }
    for (const volume_check& volume : look->state.volumes) {
        if (volume.files->state != volume_state::plain &&
            !take_volume(volume, progress, out, problem)) {
            return false;
        }
    }
    return !has_twins(*out, problem);
}
