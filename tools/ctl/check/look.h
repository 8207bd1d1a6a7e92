// One look at a server: its files, with a pending journal replayed into memory, and its headers.
// Every command that answers from the metadata begins with one. Below: the overlay,
// replay_memory.h, frozen.h, state.h. Above: the commands.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "ctl/check/journal.h"
#include "ctl/check/replay_memory.h"
#include "ctl/check/state.h"
#include "store/overlay.h"

struct server_look {
    std::unique_ptr<io_overlay> overlay;   // what a replay would write; null: the files as they are
    std::optional<memory_replay> refusal;  // why start-up replay would refuse
    check_mode mode = check_mode::as_found;
    std::optional<journal_moment> journal;  // before the look; none: no journal, or not readable
    check_state state;
};

// What a command does with a look. False: it cannot be done at all; `problem` says why.
using look_taker = std::function<bool(server_look* look, std::string* problem)>;

enum class look_end {
    still,   // the answer is of one moment
    moving,  // the service wrote all the time: the answer is of different moments
    failed,  // `problem` says why
};

// Lists the server, replays a pending journal into memory (unless the request says raw), reads the
// headers of the chosen volumes, and lets `take` look at the rest. If the service wrote meanwhile,
// all of it is done again, on a copy in memory if one can be made, up to four times: `take` starts
// afresh each time. What rooms below log is dropped.
look_end look_at_server(const check_request& request, const look_taker& take, std::string* problem);

// The same. The last look stays, with its overlay on, whatever `take` said of it; null if there was
// none. What is read through the overlay from then on is of the moment of the look.
look_end keep_look_at_server(const check_request& request, const look_taker& take,
                             std::unique_ptr<server_look>* kept, std::string* problem);

// The words for a server on which nothing was found: nobody knows whether a mount is missing.
extern const char* const NO_VOLUMES;
// The words for a service that would not stand still.
extern const char* const STILL_WRITING;
