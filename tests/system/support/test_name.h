// Names of parameterised tests. Below: nothing.
#pragma once

#include <algorithm>
#include <string>

// A kind of damage as the name of a test: letters, digits and underscores.
inline std::string test_name(std::string kind) {
    std::replace(kind.begin(), kind.end(), '-', '_');
    return kind;
}
