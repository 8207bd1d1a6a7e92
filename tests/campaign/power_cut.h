// The states that a disk may have after the power failed in the middle of a recorded run: all that
// a sync covers is there; any part of the rest may be missing.
//
// What a sync covers: one of a file covers its bytes, size and permissions, but no name; one of a
// directory covers the names in it at that moment and the creation of the files that they name; one
// of a file system covers all of it. Each volume and the journal's directory is a file system.
// A rename is kept or lost as a whole, with the directory of the new name.
//
// What may be missing, each on its own: a 512-byte block, or any number of its last changes; the
// last changes of a file's size or permissions; a change of a name. A change whose file is not
// there under the old name, because an earlier change is missing, does nothing.
// Below: disk_past.h, copy_tree.h. Above: the driver of the cuts.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "campaign/disk_past.h"

// A value with changes that no sync covers.
struct loose_end {
    size_t index;      // of all loose ends of this cut, from 0
    std::string file;  // the first name of the file, or the name that changes
    bool is_name;
    std::vector<size_t> changes;  // the operations, in their order
};
// How many of the changes, from the first on, reached the disk. For a name: 0 or 1, and for
// a tree that was being removed one answer for each name in it.
using fate = std::function<size_t(const loose_end&)>;

// Returns the loose ends of a past (past_of), and writes the state of the disk with those changes
// that `decide` keeps to `to`, which is new. A null `decide` keeps all.
std::vector<loose_end> loose_ends(disk_past* past);
void write_state(disk_past* past, const fate& decide, const std::string& to);
