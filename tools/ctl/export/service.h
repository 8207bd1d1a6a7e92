// Whether the service, or a run of tarn, writes to a server. The platform has no call that says so:
// there are signs. Below: journal.h, the platform. Above: source.h.
#pragma once

#include <optional>
#include <string>

#include "ctl/check/journal.h"

// Why it seems that someone writes now, as the beginning of a sentence; empty: there is no sign.
//  - another process holds the lock that a writing run of tarn takes on a volume or on the journal
//  - the journal is not closed, and systemd says that the service is active
std::string sign_of_a_writer(const server_files& server,
                             const std::optional<journal_moment>& journal);
