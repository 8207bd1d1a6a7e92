// Files that are read and replaced as a whole: whoever reads one sees the old one or the new one,
// whatever happens meanwhile. Below: the seam. Above: commands that keep a file of their own.
#pragma once

#include <cstddef>
#include <string>

std::string directory_of(const std::string& path);  // "." without a slash

// Reads at most `most` + 1 bytes of a regular file; never waits. False: errno says why, EISDIR or
// EINVAL if it is no regular file.
bool read_whole_file(const std::string& path, size_t most, std::string* text);

// Writes `text` into a new file beside `path`, whose name is stored through `fresh`, and syncs it.
// False: errno says why, and there is no new file.
bool write_beside(const std::string& path, const std::string& text, std::string* fresh);
// Renames `fresh` to `path` and syncs the directory. False: errno says why; `fresh` is removed,
// unless only the sync failed.
bool move_in_place(const std::string& fresh, const std::string& path);
// Both.
bool replace_file(const std::string& path, const std::string& text);
