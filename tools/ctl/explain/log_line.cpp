#include "ctl/explain/log_line.h"

#include <algorithm>

#include "ctl/text/escape.h"

// Length of the colour at the front of `text`, "\x1b[31m"; 0: there is none.
static size_t colour_length(std::string_view text) {
    if (!text.starts_with("\x1b[")) {
        return 0;
    }
    const size_t end = text.find_first_not_of("0123456789;", 2);
    return end != std::string_view::npos && text[end] == 'm' ? end + 1 : 0;
}

static void add_blank(std::string* out) {
    if (!out->empty() && out->back() != ' ') {
        out->push_back(' ');
    }
}

// Whether the character at the front, `bytes` long, can be shown as it is. A character that is not
// seen, or turns the order of a line around, cannot.
static bool is_visible(std::string_view text, size_t bytes) {
    const auto first = static_cast<unsigned char>(text[0]);
    return first < 0x80 ? first > 0x20 && first != 0x7F
                        : bytes != 0 && shown(text.substr(0, bytes)) == text.substr(0, bytes);
}

// Moves the first character, or what stands for it, from `line` to `out`.
static void clean_character(std::string_view* line, std::string* out) {
    const size_t bytes = utf8_first(*line).bytes;
    if (is_visible(*line, bytes)) {
        *out += line->substr(0, bytes);
    } else if (static_cast<unsigned char>((*line)[0]) >= 0x80) {
        *out += '?';
    } else {
        add_blank(out);
    }
    line->remove_prefix(std::max<size_t>(bytes, 1));
}

std::string clean_line(std::string_view line) {
    line = line.substr(0, LOG_LINE_MAX);
    std::string out;
    while (!line.empty()) {
        const size_t colour = colour_length(line);
        if (colour != 0) {
            line.remove_prefix(colour);
        } else {
            clean_character(&line, &out);
        }
    }
    if (!out.empty() && out.back() == ' ') {
        out.pop_back();
    }
    return out;
}

static bool is_name(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

static size_t count_digits(std::string_view text) {
    return std::min(text.find_first_not_of("0123456789"), text.size());
}

// Removes "name(123) " from the front. Returns whether it is there.
static bool take_function(std::string_view* text, std::string* function) {
    size_t length = 0;
    while (length < text->size() && is_name((*text)[length])) {
        length++;
    }
    std::string_view rest = text->substr(length);
    if (length == 0 || !rest.starts_with('(')) {
        return false;
    }
    rest.remove_prefix(1);
    const size_t digits = count_digits(rest);
    rest.remove_prefix(digits);
    if (digits == 0 || !rest.starts_with(") ")) {
        return false;
    }
    *function = text->substr(0, length);
    *text = rest.substr(2);
    return true;
}

static bool take_prefix(std::string_view* text, std::string_view prefix) {
    if (!text->starts_with(prefix)) {
        return false;
    }
    text->remove_prefix(prefix.size());
    return true;
}

// Removes "tarn[123]: " or "tarn: " from the front. Returns whether it is there.
static bool take_tag(std::string_view* text, std::string* process) {
    std::string_view rest = *text;
    if (!take_prefix(&rest, "tarn")) {
        return false;
    }
    std::string_view number;
    if (take_prefix(&rest, "[")) {
        number = rest.substr(0, count_digits(rest));
        rest.remove_prefix(number.size());
        if (!take_prefix(&rest, "]")) {
            return false;
        }
    }
    if (!take_prefix(&rest, ": ")) {
        return false;
    }
    *process = number;
    *text = rest;
    return true;
}

// Removes "tarn:123 ", which a service message begins with. Returns whether it is there.
static bool take_service(std::string_view* text) {
    std::string_view rest = *text;
    if (!take_prefix(&rest, "tarn:") || count_digits(rest) == 0) {
        return false;
    }
    rest.remove_prefix(count_digits(rest));
    if (!take_prefix(&rest, " ")) {
        return false;
    }
    *text = rest;
    return true;
}

// What the program itself puts in front. Returns false if none of it is there.
static bool take_own_front(std::string_view* text, std::string* function) {
    std::string_view rest = *text;
    if (take_prefix(&rest, "ERR: ") && take_function(&rest, function)) {
        *text = rest;
        return true;
    }
    return take_function(text, function) || take_service(text) || text->starts_with("TARN_INFO:") ||
           text->starts_with("TARN_RPT:");
}

// Removes everything up to the program's own front, or to its tag. Returns whether one is there:
// the first word that is.
static bool take_front(std::string_view* text, log_line* parsed) {
    for (size_t at = 0; at < text->size();) {
        std::string_view rest = text->substr(at);
        const bool tagged = take_tag(&rest, &parsed->process);
        const bool marked = at == 0 || rest.starts_with("ERR: ") || rest.starts_with("TARN_") ||
                            rest.starts_with("tarn:");
        if ((tagged || marked) && (take_own_front(&rest, &parsed->function) || tagged)) {
            *text = rest;
            return true;
        }
        const size_t blank = text->find(' ', at);
        at = blank == std::string_view::npos ? text->size() : blank + 1;
    }
    return false;
}

// A function's name somewhere in a line without the program's tag: the tag may be written
// otherwise.
static void take_any_function(std::string_view* text, std::string* function) {
    for (size_t at = text->find(' '); at != std::string_view::npos; at = text->find(' ', at + 1)) {
        std::string_view rest = text->substr(at + 1);
        if (take_function(&rest, function)) {
            *text = rest;
            return;
        }
    }
}

log_line parse_log_line(std::string_view line) {
    const std::string clean = clean_line(line);
    std::string_view text = clean;
    log_line parsed;
    parsed.from_program = take_front(&text, &parsed);
    if (!parsed.from_program) {
        take_any_function(&text, &parsed.function);
    }
    parsed.text = text;
    return parsed;
}
