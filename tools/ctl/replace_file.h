// Replaces a file as a whole: whoever reads it sees the old one or the new one, whatever happens
// meanwhile. Below: the seam. Above: commands that keep a file of their own.
#pragma once

#include <string>

// Writes `text` into a new file beside `path`, syncs it, renames it to `path`, and syncs the
// directory. Returns false if a step fails: errno says why, and the new file is removed, unless
// only the last step failed. `directory` holds `path`.
bool replace_file(const std::string& directory, const std::string& path, const std::string& text);
