// Text in lines for a terminal. Below: escape.h.
#pragma once

#include <string>
#include <string_view>

constexpr size_t TEXT_COLUMNS = 100;     // of a line, unless the terminal is narrower
constexpr size_t TEXT_COLUMNS_MIN = 40;  // even then

// Set once, at the start: how wide lines may be. What does not fit these bounds becomes the nearer
// one.
void set_text_columns(size_t columns);

// The words of `text` in lines, each with its line end. The first line begins with `head`, the
// others with as many blanks as `head` has columns. A word that is longer than a line keeps a line
// of its own.
std::string paragraph(std::string_view head, std::string_view text);

// Appends `tail`, which is never broken, to the last line of `lines`, three blanks behind it, if it
// fits there; otherwise on a line of its own, `indent` blanks in.
void append_unbroken(std::string* lines, std::string_view tail, size_t indent);
