// Whether a line was made from a printf format. Above: recognise.h.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// A format in pieces. Time to match grows with the length of the line times that of the format, not
// faster, whatever the line holds.
class format_pattern {
public:
    // Knows %s (any text), %c (one character), %x and %X (hexadecimal digits), and every other
    // conversion as a decimal number.
    explicit format_pattern(std::string_view format);

    // 0 if the whole of `line` does not fit; else 1 and the number of the format's own characters.
    [[nodiscard]] size_t match(std::string_view line) const;

private:
    enum class piece_kind { words, character, decimal, hexadecimal };
    struct piece {
        piece_kind kind;
        std::string words;  // of kind `words`
    };
    using run = std::vector<piece>;  // between two texts of any length

    void add_words(std::string_view words);
    size_t add_conversion(std::string_view format, size_t at);
    static bool take_piece(const piece& wanted, std::string_view* line);
    static bool take_run(const run& wanted, std::string_view* line);
    static bool find_run(const run& wanted, bool at_end, std::string_view* line);

    std::vector<run> runs_{1};  // the first one begins the line, the last one ends it
    size_t own_characters_ = 0;
};
