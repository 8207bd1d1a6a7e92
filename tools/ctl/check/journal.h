// The journal of a server: its header, and the window of transactions that a replay looks at.
// Below: jnl_walk.h, header_view.h. Above: the order of a check.
#pragma once

#include <optional>

#include "ctl/check/state.h"
#include "jnl/jnl_format.h"

// "success", "abnormal", ...; empty for a value that no journal has.
std::string journal_status_word(uint32_t tag);
// The service was shut down cleanly, or never ran: there is nothing to replay.
bool journal_was_closed(uint32_t tag);

// Where the journal is now: its header, and the id of the newest transaction whose record is whole.
// The service may write the header before the record.
struct journal_moment {
    jnl_header header;
    uint32_t newest;
    bool operator==(const journal_moment& other) const;
};
std::optional<journal_moment> journal_now(const server_files& server);

// Reports what is wrong with the journal, and notes what its history explains: a window that is cut
// short leaves the files as no replay would.
void check_journal(check_state* state);
