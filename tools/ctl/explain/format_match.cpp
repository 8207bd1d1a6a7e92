#include "ctl/explain/format_match.h"

#include <algorithm>

static constexpr size_t DIGITS_MAX = 20;  // of a number of 64 bits

format_pattern::format_pattern(std::string_view format) {
    size_t at = 0;
    while (at < format.size()) {
        const size_t percent = std::min(format.find('%', at), format.size());
        add_words(format.substr(at, percent - at));
        at = percent < format.size() ? add_conversion(format, percent + 1) : percent;
    }
}

void format_pattern::add_words(std::string_view words) {
    if (words.empty()) {
        return;
    }
    own_characters_ += words.size();
    run& last = runs_.back();
    if (!last.empty() && last.back().kind == piece_kind::words) {
        last.back().words += words;
    } else {
        last.push_back({piece_kind::words, std::string(words)});
    }
}

// Adds the conversion whose first character after the '%' is at `at`. Returns where it ends.
size_t format_pattern::add_conversion(std::string_view format, size_t at) {
    while (at < format.size() &&
           std::string_view("-.*0123456789lhz").find(format[at]) != std::string_view::npos) {
        at++;
    }
    switch (at < format.size() ? format[at] : '%') {
        case '%':
            add_words("%");
            break;
        case 's':
            runs_.emplace_back();
            break;
        case 'c':
            runs_.back().push_back({piece_kind::character, {}});
            break;
        case 'x':
        case 'X':
            runs_.back().push_back({piece_kind::hexadecimal, {}});
            break;
        default:
            runs_.back().push_back({piece_kind::decimal, {}});
    }
    return at + 1;
}

static bool is_decimal(char c) {
    return c >= '0' && c <= '9';
}

static bool is_hexadecimal(char c) {
    return is_decimal(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Removes the digits at the front. Returns whether there is one.
static bool take_digits(std::string_view* line, bool (*is_digit)(char)) {
    const size_t limit = std::min(line->size(), DIGITS_MAX);
    size_t count = 0;
    while (count < limit && is_digit((*line)[count])) {
        count++;
    }
    line->remove_prefix(count);
    return count > 0;
}

// Removes what fits at the front of the line. Returns false if nothing does.
bool format_pattern::take_piece(const piece& wanted, std::string_view* line) {
    switch (wanted.kind) {
        case piece_kind::words:
            if (!line->starts_with(wanted.words)) {
                return false;
            }
            line->remove_prefix(wanted.words.size());
            return true;
        case piece_kind::character:
            if (line->empty()) {
                return false;
            }
            line->remove_prefix(1);
            return true;
        case piece_kind::decimal:
            if (line->starts_with('-')) {
                line->remove_prefix(1);
            }
            return take_digits(line, is_decimal);
        case piece_kind::hexadecimal:
            return take_digits(line, is_hexadecimal);
    }
    return false;  // not reached: every kind has returned
}

bool format_pattern::take_run(const run& wanted, std::string_view* line) {
    std::string_view rest = *line;
    for (const piece& one : wanted) {
        if (!take_piece(one, &rest)) {
            return false;
        }
    }
    *line = rest;
    return true;
}

// Removes everything up to the end of the first place where the run fits. That place is the right
// one: what follows may lie anywhere after it. `at_end`: the line must end there.
bool format_pattern::find_run(const run& wanted, bool at_end, std::string_view* line) {
    if (wanted.empty()) {
        return true;  // the text of any length takes what is left
    }
    const piece& first = wanted.front();
    for (size_t at = 0; at <= line->size(); at++) {
        if (first.kind == piece_kind::words) {
            at = line->find(first.words, at);
            if (at == std::string_view::npos) {
                return false;
            }
        }
        std::string_view rest = line->substr(at);
        if (take_run(wanted, &rest) && (!at_end || rest.empty())) {
            *line = rest;
            return true;
        }
    }
    return false;
}

size_t format_pattern::match(std::string_view line) const {
    if (!take_run(runs_.front(), &line)) {
        return 0;
    }
    for (size_t i = 1; i < runs_.size(); i++) {
        if (!find_run(runs_[i], i + 1 == runs_.size(), &line)) {
            return 0;
        }
    }
    return runs_.size() > 1 || line.empty() ? own_characters_ + 1 : 0;
}
