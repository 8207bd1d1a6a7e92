// What every command with --json prints first, and how a record is printed. Below: json_line.h.
// Above: the commands.
#pragma once

#include <cstdio>
#include <string>

#include "ctl/json_line.h"

std::string host_name();

// record, schema, tool, command and server; the command adds its own fields.
json_record start_record(const char* command);

// Prints one line. False: it cannot be written, errno says why.
bool put_record(FILE* out, const json_record& record);
// The field "file", and "file_hex" if the name is not UTF-8.
void add_file(json_record* record, const std::string& file);
