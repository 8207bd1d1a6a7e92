// One record of JSON Lines. A source that sets or reads fields includes <nlohmann/json.hpp> itself:
// it is most of what such a source costs the compiler. Below: escape.h, nlohmann-json. Above: every
// command with --json.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

using json_record = nlohmann::ordered_json;  // fields stay in the order in which they were set

// The record on one line, with its line end. Strings may hold any bytes: one that does not belong
// to valid UTF-8 appears as \udcHH, half of a surrogate pair, which no valid text holds.
std::string json_line(const json_record& record);

// A number up to 2^53, which every reader keeps exactly; a larger one as a decimal string.
json_record json_number(uint64_t number);

bool is_utf8(std::string_view text);
std::string hex_of_bytes(std::string_view text);
