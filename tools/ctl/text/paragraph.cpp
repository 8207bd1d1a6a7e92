#include "ctl/text/paragraph.h"

#include <algorithm>

#include "ctl/text/escape.h"

static size_t text_columns = TEXT_COLUMNS;

void set_text_columns(size_t columns) {
    text_columns = std::clamp(columns, TEXT_COLUMNS_MIN, TEXT_COLUMNS);
}

std::string paragraph(std::string_view head, std::string_view text) {
    const size_t indent = columns_of(head);
    std::string lines(head);
    size_t at = indent;  // columns that are filled
    bool line_begins = true;
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(word.size() == text.size() ? word.size() : word.size() + 1);
        if (word.empty()) {
            continue;
        }
        const size_t columns = columns_of(word);
        if (!line_begins && at + 1 + columns > text_columns) {
            lines += "\n" + std::string(indent, ' ');
            at = indent;
            line_begins = true;
        }
        if (!line_begins) {
            lines += ' ';
            at++;
        }
        lines += word;
        at += columns;
        line_begins = false;
    }
    return lines + "\n";
}

void append_unbroken(std::string* lines, std::string_view tail, size_t indent) {
    constexpr std::string_view GAP = "   ";
    const std::string_view all = *lines;
    const size_t line_at = all.size() < 2 ? 0 : all.rfind('\n', all.size() - 2) + 1;
    const bool fits = !all.empty() && columns_of(all.substr(line_at, all.size() - line_at - 1)) +
                                              GAP.size() + columns_of(tail) <=
                                          text_columns;
    if (fits) {
        lines->pop_back();
        *lines += GAP;
    } else {
        lines->append(indent, ' ');
    }
    lines->append(tail);
    *lines += '\n';
}
