// Troubles that lead through every row of the repair page, and the rows that each one tests:
// without one of these rows its walk ends worse. Below: guide_server.h. Above: guide_test.cpp.
#pragma once

#include <string>
#include <vector>

#include "campaign/guide_server.h"

struct guide_sample {
    guide_trouble trouble;
    std::vector<std::string> rows;  // "STEP FIRST CELL"
};
const std::vector<guide_sample>& guide_samples();
