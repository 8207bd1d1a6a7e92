// The list of what an export could read, in the format of ddrescue's mapfile. Below: totals.h.
// Above: export.cpp.
#pragma once

#include <string>

#include "ctl/export/totals.h"

// Bytes of the exported file: '+' read, or a hole; '-' missing. A file of no bytes has no line.
std::string mapfile_text(const export_totals& totals, uint64_t length);
