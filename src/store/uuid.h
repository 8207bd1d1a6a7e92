// Uuids of new metadata files: fresh ones, from the system's own program, and inherited ones.
// Below: header_file.h, descriptor.h, the platform's program call. Above: the files of table and
// index.
#pragma once

#include <cstdint>

// Fills `out` with the first `n` bytes of a fresh uuid (16 in all), in the order of its text.
// Returns 0; -1, logged, when `out` is null, the program does not run or prints too little.
int uuid_gen(uint8_t* out, int n);

// Reads `n` bytes from a line of text, each from two characters, of which the first is the next
// hexadecimal digit. Other characters before a pair are skipped; the second of a pair is not
// checked. Returns false if the line ends first.
bool uuid_of_line(const char* line, uint8_t* out, int n);

// The uuid of a new file that replaces the one at `oldpath`: that file's own uuid; if `oldpath` is
// null or cannot be read, `kept`; if `kept` is null, a fresh one. 0, or -1, logged.
int inherit_uuid(const char* oldpath, const uint8_t* kept, uint8_t* out);

// Replaces the uuid of a header in memory and prints it before and after. `kind` names the file in
// the text: "TBL".
void change_uuid(const char* kind, uint8_t* of_header, const uint8_t* uuid);
