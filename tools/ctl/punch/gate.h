// Whether holes may be punched at all: only while everything that says which extents are free can
// be read, is sound, and agrees. Below: check.h, look.h. Above: punch.cpp.
#pragma once

#include <string>
#include <vector>

#include "ctl/check/look.h"

struct punch_refusal {
    std::string code;    // of a finding; empty: none has it
    std::string volume;  // root; empty: the server
    std::string words;   // whole sentence, fit to be shown
};

// Every reason against it, `report` being the check of that look; none: it is safe.
std::vector<punch_refusal> refusals_of(const server_look& look, const check_report& report);
