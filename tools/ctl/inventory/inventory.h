// `tarnctl inventory`: notes what a server is made of, so that what is missing can be missed.
// Below: inventory_file.h, check/. Above: main.
#pragma once

#include <string>

#include "ctl/output.h"

struct inventory_request {
    std::string write;    // file to write; empty: compare
    std::string compare;  // file to compare with
};

int run_inventory(const inventory_request& request, const output_style& style);
