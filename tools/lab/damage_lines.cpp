#include "lab/damage_lines.h"

#include <cstdio>

#include "print.h"

namespace lab {

static std::string place_line(const std::string& path, uint64_t offset, const std::string& what) {
    return path + ": byte " + std::to_string(offset) + ", " + what + ": ";
}

std::string change_line(const std::string& path, uint64_t offset, const std::string& what,
                        uint64_t from, uint64_t to) {
    return place_line(path, offset, what) + std::to_string(from) + " -> " + std::to_string(to);
}

std::string word_line(const std::string& path, uint64_t offset, const std::string& what,
                      uint64_t from, uint64_t to) {
    char text[64];
    (void)snprintf(text, sizeof text, "%016llx -> %016llx", ull(from), ull(to));
    return place_line(path, offset, what) + text;
}

std::string put_map_word(const damage_site& site, const std::string& path, uint64_t lea,
                         uint64_t to) {
    const uint64_t offset = offset_of_map(lea);
    uint64_t from = 0;
    if (!get_bytes(site, path, offset, &from, sizeof from)) {
        return "";
    }
    if (from == to) {
        return refuse("lea " + std::to_string(lea) + " of " + path + " has that value already");
    }
    return put_sealed(site, path, offset, &to, sizeof to)
               ? word_line(path, offset, "lea " + std::to_string(lea), from, to)
               : "";
}

}  // namespace lab
