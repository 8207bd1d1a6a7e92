// Replay: brings the loaded table (1), index (2) or map (4) up to date with the journal, each key
// from its newest record. Below: jnl_walk.h, jnl_seen_keys.h, the replay operations of the three
// kinds. Above: the drivers.
#pragma once

#include <cstdint>

struct jnl_seen_keys;

// 0 if the walk ends normally, -1 at the first failure, logged; what was written stays written.
int jnl_file_type_replay(int32_t type);
// The same as one of several passes over one table, each with another batch of maps open. `applied`
// records over all passes which image each lpa got; only a newer one replaces it. The caller frees
// it.
int jnl_file_type_replay_pass(int32_t type, jnl_seen_keys* applied);
