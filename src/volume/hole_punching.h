// Hole punching: returns the space of free extents in the data files to the file system.
// Below: dat_file.h, the entries of table and index, the platform. Above: punch_command.h.
#pragma once

#include <cstdint>

// Punches every free extent from `start` to start + length - 1 of the volume `root`, or with
// `all_groups` every free extent up to the first uninitialised group. The volume's table and index
// are the current ones. Prints its progress. 0; -1 at the first failure, printed or logged: holes
// that were already punched stay.
int dat_cal_end_lpa(const char* root, bool all_groups, uint64_t start, uint64_t length);
