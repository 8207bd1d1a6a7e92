// What has to be said beside the figures of a volume.
#include "ctl/check/place_words.h"
#include "ctl/space/report.h"
#include "ctl/text/escape.h"

std::string extents_words(uint64_t extents, uint64_t extent_size) {
    return extent_size == 0 ? count_words(extents, "extent")
                            : size_words(bytes_of(extents, extent_size));
}

static std::string check_words(const volume_space& space) {
    return " Run: tarnctl check --volume " + shell_word(space.root);
}

// "3 extents (3 MiB)".
static std::string amount_words(const volume_space& space, uint64_t extents) {
    return count_words(extents, "extent") +
           (space.extent_size == 0 ? "" : " (" + extents_words(extents, space.extent_size) + ")");
}

static std::string map_words(const volume_space& space, const map_space& map) {
    return shown(map.name) + " of " + shown(space.root);
}

// Maps that are not complete, each in a sentence of its own.
static void doubt_maps(const volume_space& space, std::vector<std::string>* doubts) {
    for (const map_space& map : space.maps) {
        if (!map.complete) {
            doubts->push_back(map_words(space, map) +
                              (map.known ? " is damaged, or was cut: it holds at least what is "
                                           "given, and may share what seems to be in one map only."
                                         : " cannot be read: it may share what seems to be in one "
                                           "map only.") +
                              check_words(space));
        }
    }
    for (const std::string& path : space.unread) {
        doubts->push_back(shown(path) +
                          " cannot be read: a map in it may share what seems to be "
                          "in one map only." +
                          check_words(space));
    }
}

std::vector<std::string> doubts_of(const volume_space& space) {
    std::vector<std::string> doubts;
    doubt_maps(space, &doubts);
    const std::string root = shown(space.root) + ": ";
    if (!space.table_known) {
        doubts.push_back(root +
                         "the table is missing or damaged: what is in use and what is free "
                         "is not known." +
                         check_words(space));
        return doubts;
    }
    if (!space.free_known) {
        doubts.push_back(root + "the index is missing or damaged: what is free is not known." +
                         check_words(space));
    }
    if (space.mapped_free > 0) {
        doubts.push_back(root + amount_words(space, space.mapped_free) +
                         (space.mapped_free == 1 ? " is" : " are") +
                         " in a map, and free in the table: do not start the service." +
                         check_words(space));
    } else if (!space.adds_up && space.complete) {
        doubts.push_back(root + "the table counts " + count_words(space.counted, "reference") +
                         ", and the maps hold " + std::to_string(space.references) +
                         ": a deletion may free something else than the figures say." +
                         check_words(space));
    }
    return doubts;
}

std::vector<std::string> notes_of(const volume_space& space) {
    std::vector<std::string> notes;
    const std::string root = shown(space.root) + ": ";
    if (space.table_known && space.in_no_map > 0) {
        notes.push_back(root + (space.complete ? "" : "at most ") +
                        amount_words(space, space.in_no_map) +
                        (space.in_no_map == 1 ? " is" : " are") + " in use and in no map." +
                        check_words(space));
    }
    for (const map_space& map : space.maps) {
        if (map.past_end > 0) {
            notes.push_back(map_words(space, map) + ": " +
                            (map.past_end == 1 ? "1 entry refers"
                                               : std::to_string(map.past_end) + " entries refer") +
                            " past the end of the data files, and holds no space." +
                            check_words(space));
        }
    }
    for (const std::string& path : space.strangers) {
        notes.push_back(shown(path) + " is a map where none is looked for: it is not counted." +
                        check_words(space));
    }
    return notes;
}
