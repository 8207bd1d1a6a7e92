// `tarnctl guard`: whether start-up replay may begin. It reads only. Below: check/. Above: main.
#pragma once

#include <set>
#include <string>

#include "ctl/output.h"
#include "view/findings.h"

struct guard_request {
    std::string inventory;           // file; empty: none
    std::set<finding_code> accepts;  // codes that do not stop it
};

int run_guard(const guard_request& request, const output_style& style);
