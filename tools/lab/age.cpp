#include "lab/age.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "lab/aging.h"
#include "lab/crash.h"
#include "lab/disk.h"
#include "lab/live_disk.h"
#include "lab/run.h"
#include "print.h"

namespace lab {

static bool has(const map_paths& paths, const std::string& path) {
    return std::find(paths.begin(), paths.end(), path) != paths.end();
}

static bool remove_maps(const std::string& directory, const map_paths& before,
                        const map_paths& now) {
    for (const std::string& path : before) {
        const std::string full_path = directory + "/" + path;
        if (!path.empty() && !has(now, path) && unlink(full_path.c_str()) != 0) {
            return complain_of(full_path, strerror(errno));
        }
    }
    return true;
}

// Data files are only added to: free extents keep what they hold.
static bool write_files(const std::string& directory, const model& m, const map_paths& before) {
    for (const file_ref& file : list_files(m)) {
        if (file.kind == file_kind::data || file.kind == file_kind::decoy) {
            continue;
        }
        const file_image image = image_of(m, file);
        const bool is_new = file.kind == file_kind::map && !has(before, image.path);
        if (!(is_new ? create_file(directory, image) : replace_file(directory, image))) {
            return false;
        }
    }
    return true;
}

bool age_sample(const age_order& order, progress* bar) {
    model m = {};
    if (!starts_from(order.directory, &m, bar)) {
        return false;
    }
    const map_paths before = paths_of(m);
    live_disk disk = start_disk(order.directory, m, {});
    const uint64_t kind = order.clean ? NOTES_AGED_CLEANLY : NOTES_AGED;
    const run_notes notes = {order.seed, order.transactions, order.transactions, kind};
    age_model(&m, notes);
    if (!create_notes(order.directory, notes) || !extend_data_files(disk, m) ||
        !write_data(&disk, m)) {
        return false;
    }
    lose_writes(&m);
    if (!remove_maps(order.directory, before, paths_of(m)) ||
        !write_files(order.directory, m, before)) {
        return false;
    }
    (void)printf("%s: aged by %llu transactions, %llu removed maps are still named; %s.\n",
                 order.directory.c_str(), ull(order.transactions), ull(removed_but_named(m)),
                 order.clean ? "shut down cleanly" : crash_in_words(m).c_str());
    return true;
}

}  // namespace lab
