// Where tarnctl may keep a file of its own. Below: view/server_files.h. Above: commands that keep
// one.
#pragma once

#include <string>

#include "view/server_files.h"

// The whole path without links in its directory. False: errno says why there is no such place.
bool find_place(const std::string& path, std::string* place);

// Why nothing may be written at that place, whatever is there: it lies in a volume, is the journal,
// or is no regular file. Empty: it may.
std::string problem_of_place(const std::string& place, const server_files& server);
