#include "ctl/check/lun_names.h"

#include "ctl/text/escape.h"

static bool fits(const volume_check& volume, const view_map& map, const std::string& name) {
    const std::string root = volume.files->root + ":";
    const std::string below = name.starts_with(root) ? name.substr(root.size()) : name;
    return below == map.name || below == map.below || name == map.path;
}

std::vector<named_map> maps_named(const check_state& state, const std::string& name) {
    std::vector<named_map> found;
    for (const volume_check& volume : state.volumes) {
        for (const map_check& map : volume.maps) {
            if (fits(volume, *map.file, name)) {
                found.push_back({&volume, &map});
            }
        }
    }
    return found;
}

std::string ambiguity_of(const std::string& name, const std::vector<named_map>& fitting) {
    if (fitting.empty()) {
        return "'" + shown(name) + "' is the name of no LUN, snapshot or map";
    }
    std::string words = "'" + shown(name) + "' fits more than one map:";
    for (const named_map& one : fitting) {
        words += "\n    " + shown(one.map->file->path);
    }
    return words + "\nName one of them by its path.";
}
