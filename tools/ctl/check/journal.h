// The journal of a server: its header, and the window of transactions that a replay looks at.
// Below: jnl_walk.h, header_view.h. Above: the order of a check.
#pragma once

#include <optional>

#include "ctl/check/state.h"
#include "jnl/jnl_format.h"

// The journal's header as it is on the disk now; none when it cannot be read or is damaged.
std::optional<jnl_header> read_journal_header(const std::string& path);

// "success", "abnormal", ...; empty for a value that no journal has.
std::string journal_status_word(uint32_t tag);

// Reports what is wrong with the journal, and notes what its history explains: a window that is cut
// short leaves the files as no replay would.
void check_journal(check_state* state);
