#include "ctl/check/state.h"

#include <cstring>
#include <iterator>

#include "ctl/text/escape.h"

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

int cause_of_block(const damaged_blocks& blocks, uint64_t block) {
    auto after = blocks.upper_bound(block);
    if (after == blocks.begin()) {
        return NO_CAUSE;
    }
    const damaged_run& run = std::prev(after)->second;
    return block < run.end ? run.finding : NO_CAUSE;
}

int add_damaged_block(check_state* state, const volume_check* volume, damaged_blocks* blocks,
                      finding_code code, const std::string& path, uint64_t block) {
    const int known = cause_of_block(*blocks, block);
    if (known != NO_CAUSE) {
        return known;
    }
    const int before = block > 0 ? cause_of_block(*blocks, block - 1) : NO_CAUSE;
    if (before != NO_CAUSE) {
        std::prev(blocks->upper_bound(block))->second.end++;
        state->findings[static_cast<size_t>(before)].count++;
        state->findings[static_cast<size_t>(before)].number++;
        return before;
    }
    if (blocks->size() >= RUNS_MAX) {
        const int last = blocks->begin()->second.finding;
        state->findings[static_cast<size_t>(last)].number++;  // counted with the first one
        return last;
    }
    const int number = add_finding(state, code, volume, below_root(volume, path));
    finding* added = &state->findings.back();
    added->place = place_kind::block;
    added->first = block;
    added->count = 1;
    blocks->emplace(block, damaged_run{block + 1, number});
    return number;
}

const char* kind_word(map_place place) {
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

std::string map_words(const map_check& map) {
    const std::string& path = map.file->path;
    const std::string root = path.substr(0, path.size() - map.file->below.size() - 1);
    return shown(map.file->name) + " of " + shown(root);
}

std::string table_words(const volume_check& volume) {
    return "table of " + shown(volume.files->root);
}

finding_owner owner_of(const map_check& map) {
    return {map.file->name, kind_word(map.file->place), map.file->below, {}, 0};
}
