#include "ctl/export/mapfile.h"

#include <cstdio>

#include "print.h"

static void add_line(std::string* text, uint64_t begin, uint64_t bytes, char status) {
    if (bytes > 0) {
        char line[64];
        snprintf(line, sizeof line, "0x%08llX  0x%08llX  %c\n", ull(begin), ull(bytes), status);
        *text += line;
    }
}

std::string mapfile_text(const export_totals& totals, uint64_t length) {
    std::string text = "# Mapfile. Created by tarnctl " TARN_VERSION
                       "\n# current_pos  current_status  current_pass\n"
                       "0x00000000     +               1\n"
                       "#      pos        size  status\n";
    uint64_t at = 0;
    for (size_t i = 0; i < totals.missing.size();) {
        const uint64_t begin = totals.missing[i].begin;
        uint64_t end = begin;  // neighbours that are missing for another reason are one line
        for (; i < totals.missing.size() && totals.missing[i].begin == end; i++) {
            end += totals.missing[i].bytes;
        }
        add_line(&text, at, begin - at, '+');
        add_line(&text, begin, end - begin, '-');
        at = end;
    }
    add_line(&text, at, length - at, '+');
    return text;
}
