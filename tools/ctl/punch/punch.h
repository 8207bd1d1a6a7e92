// `tarnctl punch`: what could be given back to the file system, and the commands that do it.
// It punches nothing itself. Below: check/look.h. Above: main.
#pragma once

#include <string>
#include <vector>

#include "ctl/output.h"

struct punch_request {
    std::vector<std::string> volumes;  // roots; empty: all
};

int run_punch(const punch_request& request, const output_style& style);
