// Files that tarnctl keeps for later runs: one JSON object, with a checksum as its last field, so
// that a file that was cut or changed is noticed. Below: the seam, nlohmann-json, crc32c.h.
// Above: inventory_file.h and other kept files.
#pragma once

#include <string>

#include "ctl/json_line.h"

enum class kept_end {
    read,
    absent,
    unreadable,  // for another reason
    not_ours,    // no file of this kind
    damaged,     // cut or changed
    newer,       // of a later format
};

// What is expected of a file: its field `kind` holds the number of its format.
struct kept_kind {
    const char* kind;   // "tarn_inventory"
    const char* words;  // "inventory"
    unsigned format;    // the highest that is known, from 1
};

// Reads the object. Unless `read`, `problem` says why, naming the file.
kept_end read_kept(const std::string& path, const kept_kind& kind, json_record* content,
                   std::string* problem);

// The exit status of a command that needs the file and did not get it; prints the problem.
int end_of_kept(kept_end end, const std::string& problem);

// Writes `content`, with kind, format and checksum, whole or not at all: beside it, synced,
// renamed, the directory synced. The last `kept` files are kept, the older ones as PATH.1, PATH.2
// and so on; 1: none. False: `problem` says why; unless
// only the sync of the directory failed, the file is what it was.
bool write_kept(const std::string& path, const kept_kind& kind, const json_record& content,
                unsigned kept, std::string* problem);
