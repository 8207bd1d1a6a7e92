// For tests of single calls on the single-entry path: no bulk transfer begins.
#pragma once

#include <cerrno>

#include "support/fault_hook.h"

// Alive: every bulk transfer is refused, so that each procedure goes entry by entry. Other hooks
// do not see the refused calls.
class single_entry_path {
    static io_verdict refuse(io_call call, size_t wanted) {
        return {call == io_call::bulk ? EIO : 0, wanted};
    }
    fault_hook hook_{refuse};
};
