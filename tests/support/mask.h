// Line numbers in log lines may change: both kinds of log capture hide them the same way.
#pragma once

#include <string>

// "ERR: name(123) rest" and "name(123) rest" -> "name(#)", "tarn:123 rest" -> "tarn:# rest"; any
// other line as it is.
std::string mask_line_number(const std::string& line);
