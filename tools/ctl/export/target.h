// The files that an export makes: FILE.part, which becomes FILE when it is whole, and FILE.map.
// Nothing else is written, and nothing in a volume. Below: the seam. Above: export.cpp.
#pragma once

#include <cstdint>
#include <string>

#include "view/server_files.h"

struct export_target {
    std::string file;
    int fd = 0;             // of the part
    bool is_named = false;  // the part has become the file
    [[nodiscard]] std::string part() const { return file + ".part"; }
    [[nodiscard]] std::string map() const { return file + ".map"; }
};

// Why nothing may be written there; empty: it may. `force`: files of these names are replaced.
std::string target_problem(const server_files& server, const export_target& target, bool force);

// Each returns false with errno set.

// Makes the part, which reads as `length` zeros. With `force` one that is left over goes away.
bool open_part(export_target* target, uint64_t length, bool force);
// Syncs the part, writes the mapfile, gives both their names, and syncs their directory.
bool finish_part(export_target* target, const std::string& mapfile);
// Closes the part and removes it.
void drop_part(export_target* target);
// Closes it, and leaves it there.
void leave_part(export_target* target);
