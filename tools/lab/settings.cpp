#include "lab/settings.h"

#include <fstream>

namespace lab {

bool read_settings(const std::string& path, std::vector<setting>* lines) {
    std::ifstream file(path);
    if (!file) {
        return false;
    }
    for (std::string line; std::getline(file, line);) {
        const size_t equals = line.find(" = ");
        if (equals != std::string::npos && line[0] != '#') {
            lines->push_back({line.substr(0, equals), line.substr(equals + 3)});
        }
    }
    return true;
}

const std::string* find_setting(const std::vector<setting>& lines, const char* name) {
    for (const setting& line : lines) {
        if (line.name == name) {
            return &line.value;
        }
    }
    return nullptr;
}

}  // namespace lab
