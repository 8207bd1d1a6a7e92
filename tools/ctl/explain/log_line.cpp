#include "ctl/explain/log_line.h"

#include <algorithm>

// Length of the UTF-8 character at the front of `text`; 0 if it is none, or a control character.
static size_t character_length(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) {
        return first < 0x20 || first == 0x7F ? 0 : 1;
    }
    const size_t length = first >= 0xC2 && first <= 0xDF   ? 2
                          : first >= 0xE0 && first <= 0xEF ? 3
                          : first >= 0xF0 && first <= 0xF4 ? 4
                                                           : 0;
    if (length == 0 || text.size() < length) {
        return 0;
    }
    const auto second = static_cast<unsigned char>(text[1]);
    const bool is_control = first == 0xC2 && second < 0xA0;
    const bool too_long =
        (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);  // a shorter form
    const bool no_character = (first == 0xED && second > 0x9F) || (first == 0xF4 && second > 0x8F);
    const bool follows = std::all_of(text.begin() + 1, text.begin() + static_cast<long>(length),
                                     [](char c) { return (c & 0xC0) == 0x80; });
    return follows && !is_control && !too_long && !no_character ? length : 0;
}

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

std::string clean_line(std::string_view line) {
    line = line.substr(0, LOG_LINE_MAX);
    std::string out;
    while (!line.empty()) {
        const auto c = static_cast<unsigned char>(line[0]);
        const size_t colour = colour_length(line);
        const size_t length = colour != 0 ? colour : std::max<size_t>(character_length(line), 1);
        if (colour == 0 && character_length(line) != 0 && c != ' ') {
            out += line.substr(0, length);
        } else if (c >= 0x80) {
            out.push_back('?');
        } else if (colour == 0) {
            add_blank(&out);
        }
        line.remove_prefix(length);
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
