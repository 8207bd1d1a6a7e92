// A copy in memory of everything that is checked, for a server whose service runs. The service
// writes while the copy is made, so its parts are of different moments; the journal, which is
// followed meanwhile, and a replay of all that was written since the copy began make one moment of
// them. Below: the overlay, journal_follower.h. Above: the order of a check.
#pragma once

#include <cstdint>

#include "view/server_files.h"

constexpr uint64_t FROZEN_BYTES_MAX = uint64_t{64} << 20;  // of a copy

enum class freeze_end {
    frozen,
    too_large,
    moved_on,  // the service was faster than the ring is long, or a file came or went
};

// Copies tables, indexes, maps and journal of the server into the overlay that is on. The copied
// journal's window reaches back to where the service was when the copy began.
freeze_end freeze(const server_files& server);
