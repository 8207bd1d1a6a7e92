#include "support/mask.h"

#include <cctype>

static size_t after_digits(const std::string& line, size_t at) {
    while (at < line.size() && isdigit(static_cast<unsigned char>(line[at])) != 0) {
        at++;
    }
    return at;
}

static size_t after_name(const std::string& line, size_t at) {
    while (at < line.size() &&
           (isalnum(static_cast<unsigned char>(line[at])) != 0 || line[at] == '_')) {
        at++;
    }
    return at;
}

std::string mask_line_number(const std::string& line) {
    const bool service = line.rfind("tarn:", 0) == 0;
    const size_t name = line.rfind("ERR: ", 0) == 0 ? 5 : 0;
    const size_t open = service ? 4 : after_name(line, name);
    if (open == name || open >= line.size() || (!service && line[open] != '(')) {
        return line;
    }
    const size_t end = after_digits(line, open + 1);
    if (end == open + 1 || (!service && line.compare(end, 1, ")") != 0)) {
        return line;
    }
    return line.substr(0, open + 1) + "#" + line.substr(end);
}
