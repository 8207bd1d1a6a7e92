// Verification: does the loaded table (1), index (2) or map (4) already hold every change that the
// journal's recent transactions recorded for it? Below: jnl_walk.h, jnl_seen_keys.h, the entry
// checks of the three kinds. Nothing is written.
#pragma once

#include <cstdint>

// 0 when every examined entry matches, -1 at the first that does not or on a failure, logged.
int jnl_file_type_check(int32_t type);
