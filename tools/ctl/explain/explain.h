// `tarnctl explain`: what a code of the catalogue, a line of the program or a whole log means.
// Below: recognise.h, whole_log.h, answers.h, view/findings.h. Above: main, which reads the
// options.
#pragma once

#include <cstdio>
#include <span>
#include <string>
#include <vector>

#include "view/findings.h"

struct explain_request {
    std::vector<std::string> words;  // of the command line, joined by blanks; none: the catalogue
    bool json = false;
    std::span<const finding_row> catalogue;
    FILE* in = stdin;  // the log, when the only word is "-"
    FILE* out = stdout;
};

// Returns the exit status: 0 explained; 16 nothing in it is known, or there is nothing to explain;
// 8 the input cannot be read, or
// the answer cannot be written.
int explain(const explain_request& request);
