// Small text files of "name = value" lines, as the sample's own two files are.
// Below: nothing. Above: disk.h, run_notes.h.
#pragma once

#include <string>
#include <vector>

namespace lab {

struct setting {
    std::string name;
    std::string value;
};

// Reads the lines that are no comments. Returns false if the file cannot be read.
bool read_settings(const std::string& path, std::vector<setting>* lines);
// Null if there is no such name.
const std::string* find_setting(const std::vector<setting>& lines, const char* name);

}  // namespace lab
