// The replay of the journal into memory: the files are read afterwards as start-up replay would
// leave them, and nothing is written. Below: the overlay, the replay of whole volumes. Above: the
// commands that look at a server.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class io_overlay;

enum class replay_end {
    not_needed,  // no journal, one that was never used, or a clean shutdown
    replayed,
    refused,  // start-up replay would refuse as well, unless the overlay ran out: `log` says why
};

struct memory_replay {
    replay_end end;
    std::optional<uint32_t> status;  // of the journal, before; none: not there, or not readable
    bool ran_out;                    // a write found no room in the overlay
    std::vector<std::string> log;    // what was logged, without line ends; the first LINES_KEPT
    uint64_t lines;                  // that were logged
    // Damage that the replay wrote over. Start-up replay would keep the journal for it, marked bad.
    uint64_t damages;
};
constexpr size_t LINES_KEPT = 200;

// Replays the configured journal into every volume, each write into `overlay`, which must be the
// one that is on: otherwise nothing is done, and the end is `refused`. Must not run beside anything
// else that uses the current files, the open handles or the reasons to keep the journal; it leaves
// all of them closed and empty. After `refused` some files may be replayed in part: the caller
// drops the overlay.
memory_replay replay_into_memory(const io_overlay& overlay);
