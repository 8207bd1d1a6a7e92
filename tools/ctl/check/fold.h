// Raw findings become a report: runs instead of entries, causes before consequences, an order that
// depends on nothing but the findings, and for each finding a next command that does no harm.
// Below: check.h. Above: whoever has looked at a server.
#pragma once

#include "ctl/check/check.h"

// Everything below, in this order. `because` of a raw finding is a number in the raw list, before
// or after it; it leads to the same finding in the new list.
void finish_report(check_report* report);

// Merges neighbouring runs of one code with the same owners and words, and sorts: the worst first,
// then by volume, code, file and place; consequences directly after their cause. A finding with no
// place of its own that stands for several places is the rest of its code, and comes after it.
std::vector<finding> fold_findings(std::vector<finding> raw);

// Fills in `next` where it is empty. Whatever a rebuild would make worse keeps it from being
// recommended: the command to explain that finding takes its place.
void choose_next(check_report* report);
