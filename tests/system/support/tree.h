// The contents of a directory tree, to compare before with after: the metadata files are sparse and
// have many gibibytes, so only their data is read.
#pragma once

#include <map>
#include <string>

// Path below the root -> one line that says all of it: "directory", "link to <target>", or a
// file's size and, for each run of bytes that are not zero by whole 512-byte blocks, where it
// begins, how long it is and its hash. A hole and written zeros read the same and count the same.
std::map<std::string, std::string> tree_of(const std::string& root);
