// Two tables side by side, in runs of blocks. Reports nothing: what differs, or cannot be read, is
// looked at entry by entry by the caller. Below: tbl_format.h, file.h.
#pragma once

#include <cstdint>

// From `lpa` on, the first of which the tables open as the two descriptors may not say the same
// (free, or used by equally many); `end` when they agree up to there. What it stops at is to be
// compared entry by entry: it differs, or its block cannot be read.
uint64_t tbl_agree_up_to(int one_fd, int other_fd, uint64_t lpa, uint64_t end);
