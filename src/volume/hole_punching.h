// Hole punching: free extents give their bytes in the data files back to the file system.
// Below: dat_file.h, the entries of table and index, the platform. Above: punch_command.h.
#pragma once

#include <cstdint>

// Punches every free extent from `start` to start + length - 1 of the volume `root`, or with
// `all_groups` of the leading groups that are initialised. The volume's table and index are the
// current ones. Prints its progress. 0; -1 at the first failure, printed or logged: holes that were
// already punched stay.
int dat_cal_end_lpa(const char* root, bool all_groups, uint64_t start, uint64_t length);
