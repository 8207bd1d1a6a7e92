// Which message a line is. Below: format_match.h, log_line.h, messages.h. Above: explain.h.
#pragma once

#include <array>
#include <string_view>
#include <vector>

#include "ctl/explain/format_match.h"
#include "ctl/explain/log_line.h"
#include "ctl/explain/messages.h"

struct recognised {
    const message_row* row;  // null: unknown
    bool harmless;           // this form of the message occurs where nothing is wrong
};

constexpr size_t NEAREST_COUNT = 3;

// The messages, ready to be compared with lines.
class message_book {
public:
    message_book();

    // Of several messages that fit, one that the function in front of the line makes; among those
    // the one with the most words of its own.
    [[nodiscard]] recognised recognise(const log_line& line) const;

    // The messages that look most like the text, the nearest first.
    [[nodiscard]] std::array<const message_row*, NEAREST_COUNT> nearest(
        std::string_view text) const;

private:
    struct page {
        const message_row* row;
        format_pattern pattern;
        std::vector<format_pattern> harmless;
    };

    [[nodiscard]] const page* best_page(std::string_view text, std::string_view function) const;

    std::vector<page> pages_;
};

// The text that the message quotes as the first failure of a run; empty: it quotes none.
std::string_view quoted_text(std::string_view text);
