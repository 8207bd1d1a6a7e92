// Two roads lead to an entry: one at a time, and by whole groups, windows and runs of nodes. Both
// give the same lines, results and bytes; the second is taken where a procedure has many to do, and
// left for the first when a transfer fails.
#pragma once

extern bool entry_road_only;  // tests: every procedure goes entry by entry
