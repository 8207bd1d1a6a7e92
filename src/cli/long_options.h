// Converts a table of commands or options, whose rows have `name` and `has_argument`, to the form
// of getopt_long. Below: nothing. Above: the command table, the sub-options.
#pragma once

#include <array>
#include <cstddef>
#include <getopt.h>

// The scan's result is the index of the row.
template <class Row, size_t N>
constexpr std::array<option, N + 1> long_options(const Row (&rows)[N]) {
    std::array<option, N + 1> options = {};  // the last one stays empty: the end
    for (size_t i = 0; i < N; i++) {
        options[i] = {rows[i].name, rows[i].has_argument, nullptr, static_cast<int>(i)};
    }
    return options;
}

// The row of a result of the scan, null for any other result.
template <class Row, size_t N>
constexpr const Row* row_of_result(const Row (&rows)[N], int result) {
    return result >= 0 && static_cast<size_t>(result) < N ? &rows[result] : nullptr;
}
