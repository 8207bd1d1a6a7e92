// How much space each map of a volume holds, as values. Below: extent_owners.h, the steps of the
// check that read maps and table. Above: space.cpp, the printers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ctl/check/state.h"

// What a figure is worth. Without all of what the maps hold, some are bounds, and some not even
// that.
enum class figure_worth { exact, at_least, at_most, unsure };

struct space_figure {
    uint64_t extents = 0;
    figure_worth worth = figure_worth::exact;
};

struct map_space {
    std::string name;       // as people call it
    std::string kind;       // "lun", "snapshot", ...
    std::string file;       // below the volume
    bool known = false;     // false: its header cannot be read, and there are no figures
    bool complete = false;  // every entry was read, and is what was written
    bool in_set = false;    // one of those that are to be deleted
    bool size_known = false;
    uint64_t entries = 0;    // that it has room for: the size of the LUN
    uint64_t past_end = 0;   // entries that refer past the end of the volume; counted in `mapped`
    space_figure mapped;     // entries
    space_figure exclusive;  // extents to which no other map refers
    space_figure shared;     // extents to which others refer too
};

struct volume_space {
    std::string root;
    uint64_t extent_size = 0;            // bytes; 0: unknown
    std::vector<std::string> unread;     // paths: there may be maps in them
    std::vector<std::string> strangers;  // paths of maps where none is looked for
    std::vector<map_space> maps;
    bool complete = false;     // every map is
    bool table_known = false;  // every extent of it was read, and its checksums are right
    bool free_known = false;
    bool adds_up = false;  // the table counts as many references as the maps hold
    uint64_t in_use = 0;   // extents, by the table
    uint64_t free = 0;     // extents of groups that were handed out, by table and index
    uint64_t in_one_map = 0;
    uint64_t in_several = 0;
    uint64_t in_no_map = 0;    // in use
    uint64_t mapped_free = 0;  // mapped, and free in the table
    uint64_t counted = 0;      // references, by the table, of extents in use that maps refer to
    uint64_t references = 0;   // of the maps, to extents of the volume
    space_figure freed;        // if the maps of the set were deleted
    uint64_t data_bytes = 0;   // size of the data files
};

// Fills `space`, the maps of the set first, except for what is not known. `set`: maps to be
// deleted. `sure`: false if the files are not what a replay would make of them. False: no memory.
bool measure_volume(check_state* state, volume_check* volume,
                    const std::vector<const map_check*>& set, uint64_t memory, bool sure,
                    volume_space* space);
