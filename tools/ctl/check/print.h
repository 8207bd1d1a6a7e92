// A report on standard output, as text or as JSON Lines. Below: listing.h, place_words.h.
// Above: main.
#pragma once

#include <cstdio>

#include "ctl/check/listing.h"
#include "ctl/json_line.h"

struct print_style {
    bool color = false;             // text only
    bool all = false;               // list consequences, and more than 100 findings of a code
    bool quiet = false;             // text: the verdict only; JSON: no findings
    const char* command = "check";  // in the first record
    // What text says when nothing is wrong.
    const char* clean = "Clean: nothing is wrong.";
};

// What every look at a server says first, also for other commands.
std::string opening_text(const check_report& report);  // ends with a blank line
json_record opening_record(const char* command, const check_report& report);

// False: not everything could be written, errno says why.
bool print_check_text(FILE* out, const check_report& report, const print_style& style);
bool print_check_json(FILE* out, const check_report& report, const print_style& style);

// One finding of a report, for other commands that report some.
std::string finding_text(const check_report& report, const listed_finding& listed,
                         const print_style& style);
json_record finding_record(const finding& of, const listed_finding& listed, bool all);
