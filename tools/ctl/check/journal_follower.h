// Keeps up with a journal while a service writes it: takes the transactions that the ring holds,
// and those that come, so that none is lost when the ring runs over them. Below: jnl_walk.h.
// Above: the copy of a running server.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "jnl/jnl_file.h"
#include "store/descriptor.h"

class journal_follower {
public:
    // Takes the complete transactions of the ring. False: the journal cannot be read, or holds
    // none.
    bool begin(const std::string& path);
    // Takes those that were completed since. False: the service was faster than the ring is long.
    bool poll();
    // Writes a journal of all of them over the file at `path`, with a window that reaches as far
    // back from the first new one as the file's own. False: it cannot be written.
    bool write(const std::string& path) const;

private:
    bool take_next();

    jnl_file jnl_ = {};
    std::optional<scoped_fd> fd_;
    std::vector<jnl_block> blocks_;
    uint64_t next_ = 0;        // block of the ring where the next transaction will begin
    uint64_t last_start_ = 0;  // in blocks_, where the newest transaction begins
    uint32_t first_id_ = 0;    // newest when it began
    uint32_t last_id_ = 0;
    bool lost_ = false;
};
