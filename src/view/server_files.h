// What a server is made of: its volumes, with their tables, maps and data files, and its journal,
// found by name. Nothing is printed or logged, nothing is written, and a link out of a volume is
// not followed: what could not be looked at is in the result. Below: the platform, the seam,
// volume_layout.h. Above: whoever looks at a whole server.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "volume_layout.h"

enum class view_state {
    file,
    absent,
    other,       // a directory, a pipe, ...
    unreadable,  // its status cannot be read, or a link leads out of the volume
};

enum class map_place { lun, trash, snapshot, unmap_buffer, copy_map };

struct view_map {
    std::string path;   // whole
    std::string below;  // the root
    std::string name;   // as people call it: "LUN_7", "snapshot FAMILY_3 (path)", "unmap buffer"
    map_place place;
    map_kind_code kind;
};

struct view_data_file {
    uint64_t number;
    std::string path;
    uint64_t size;  // bytes
};

// Something that could not be looked at.
struct view_gap {
    std::string path;
    int error;  // errno
};

enum class volume_state {
    sound,    // it has directories of LUN metadata
    plain,    // it holds something else: no business of this program
    missing,  // the configuration names it, and it is no directory
    empty,    // a mount point without its mount
};

struct volume_files {
    std::string root;
    volume_state state = volume_state::plain;
    bool chosen = true;  // to be looked at
    bool writable = true;
    std::string table;  // paths, whether or not something is there
    std::string index;
    view_state table_state = view_state::absent;
    view_state index_state = view_state::absent;
    std::vector<view_map> maps;                 // by path
    std::vector<view_data_file> data_files;     // by number
    std::vector<std::string> stranger_maps;     // whole paths; maps that no listing finds
    std::vector<std::string> cut_paths;         // maps whose path the main tool cuts
    std::vector<std::string> work_directories;  // left over: names below the root
    std::vector<view_gap> gaps;
};

struct server_files {
    std::vector<volume_files> volumes;  // in the platform's order
    std::string journal;                // path; empty: none is configured
    view_state journal_state = view_state::absent;
    std::string lost_journal_root;  // its directory, if that does not exist; empty otherwise
};

// Lists the server. False: the platform does not tell its volumes; `problem` says so.
bool list_server(server_files* server, std::string* problem);
// Marks the volumes with these roots as chosen; all of them, if the list is empty. False: one is
// not a volume of the server; `problem` says which.
bool choose_volumes(const std::vector<std::string>& roots, server_files* server,
                    std::string* problem);
