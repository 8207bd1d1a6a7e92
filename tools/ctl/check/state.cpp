#include "ctl/check/state.h"

#include <cstring>

int add_finding(check_state* state, finding_code code, const volume_check* volume,
                const std::string& file) {
    finding added;
    added.code = code;
    added.level = finding_row_of(code)->level;
    if (volume != nullptr) {
        added.volume = volume->files->root;
        added.extent_size = extent_bytes(volume);
    }
    added.file = file;
    state->findings.push_back(std::move(added));
    return static_cast<int>(state->findings.size()) - 1;
}

int add_unread(check_state* state, const volume_check* volume, const std::string& path, int error) {
    state->complete = false;
    const std::string root = volume != nullptr ? volume->files->root + "/" : "";
    const std::string file = path.starts_with(root) ? path.substr(root.size()) : path;
    const int number = add_finding(state, finding_code::X01, volume, file);
    state->findings.back().detail = std::string("It cannot be read: ") + strerror(error) + ".";
    return number;
}

static const char* kind_of(map_place place) {
    switch (place) {
        case map_place::lun:
            return "lun";
        case map_place::trash:
            return "trash";
        case map_place::snapshot:
            return "snapshot";
        case map_place::unmap_buffer:
            return "unmap buffer";
        case map_place::copy_map:
            return "copy map";
    }
    return "";
}

finding_owner owner_of(const map_check& map) {
    return {map.file->name, kind_of(map.file->place), map.file->below, {}, 0};
}
