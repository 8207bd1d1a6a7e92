#include "ctl/explain/recognise.h"

#include <algorithm>
#include <bitset>
#include <string>

static constexpr std::string_view OUTPUT_FRONT = "TARN_INFO: ";
static constexpr std::string_view QUOTE_FRONT = "the first: ";

const char* message_kind_word(message_kind kind) {
    static constexpr const char* words[] = {"log", "output", "reason"};
    return words[static_cast<size_t>(kind)];
}

const char* message_risk_word(message_risk risk) {
    static constexpr const char* words[] = {"none", "possible", "yes"};
    return words[static_cast<size_t>(risk)];
}

// The parts of `text` between two separators.
static std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    while (!text.empty()) {
        const size_t end = std::min(text.find(separator), text.size());
        parts.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return parts;
}

message_book::message_book() {
    for (const message_row& row : all_messages()) {
        page made = {&row, format_pattern(row.format), {}};
        for (const std::string_view form : split(row.harmless, '\n')) {
            made.harmless.emplace_back(form);
        }
        pages_.push_back(std::move(made));
    }
}

// How far the function in front of the line speaks for the message: 2 it makes it, 1 nothing is
// known of one of the two, 0 other functions make it.
static size_t rank_of(const message_row& row, std::string_view function) {
    const std::vector<std::string_view> functions = split(row.functions, ' ');
    if (function.empty() || functions.empty()) {
        return 1;
    }
    return std::find(functions.begin(), functions.end(), function) != functions.end() ? 2 : 0;
}

const message_book::page* message_book::best_page(std::string_view text,
                                                  std::string_view function) const {
    const page* best = nullptr;
    size_t most = 0;
    for (const page& one : pages_) {
        const size_t matched = one.pattern.match(text);
        if (matched == 0) {
            continue;
        }
        const size_t score = rank_of(*one.row, function) * LOG_LINE_MAX + matched;
        if (score > most) {
            most = score;
            best = &one;
        }
    }
    return best;
}

recognised message_book::recognise(const log_line& line) const {
    std::string text = line.text;
    const page* found = best_page(text, line.function);
    if (found == nullptr && line.function.empty()) {  // a line of a terminal, pasted in part
        text.insert(0, OUTPUT_FRONT);
        found = best_page(text, {});
    }
    if (found == nullptr) {
        return {nullptr, false};
    }
    const bool is_form =
        found->harmless.empty() ||
        std::any_of(found->harmless.begin(), found->harmless.end(),
                    [&text](const format_pattern& form) { return form.match(text) != 0; });
    return {found->row, found->row->normal && is_form};
}

// Which three neighbouring characters a text has, by number; letters count as small ones.
using triples = std::bitset<4096>;

static triples triples_of(std::string_view text) {
    triples found;
    unsigned last = 0;
    for (const char c : text) {
        const auto small = static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
        last = (last << 8 | small) & 0xFFFFFF;
        found.set(last * 2654435761u >> 20);
    }
    return found;
}

// From 0, nothing in common, to 1000, the same.
static size_t likeness(const triples& one, const triples& other) {
    const size_t all = one.count() + other.count();
    return all == 0 ? 0 : 2000 * (one & other).count() / all;
}

std::array<const message_row*, NEAREST_COUNT> message_book::nearest(std::string_view text) const {
    const triples wanted = triples_of(text);
    std::vector<std::pair<size_t, const message_row*>> found;
    for (const page& one : pages_) {
        found.emplace_back(likeness(wanted, triples_of(one.row->format)), one.row);
    }
    std::stable_sort(found.begin(), found.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    return {found[0].second, found[1].second, found[2].second};
}

std::string_view quoted_text(std::string_view text) {
    const size_t at = text.find(QUOTE_FRONT);
    return at == std::string_view::npos ? std::string_view{} : text.substr(at + QUOTE_FRONT.size());
}
