// A copy in memory of everything that is checked, for a server whose service runs. The service
// writes while the copy is made, so its parts are of different moments; the journal, copied last,
// and a replay of all that was written meanwhile make one moment of them. Below: the overlay, the
// journal. Above: the order of a check.
#pragma once

#include "ctl/check/journal.h"

constexpr uint64_t FROZEN_BYTES_MAX = uint64_t{64} << 20;  // of a copy

enum class freeze_end {
    frozen,
    too_large,
    moved_on,  // more was written meanwhile than the ring holds, or a file came or went
};

// Copies tables, indexes, maps and journal of the server into the overlay that is on, and widens
// the copied journal's window by the transactions that were written meanwhile.
freeze_end freeze(const server_files& server, uint32_t id_before);
