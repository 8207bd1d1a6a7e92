// A disk that goes away: the n-th system call of a kind (from 1) and all after it fail with EIO.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "store/descriptor.h"
#include "support/fault_hook.h"

class io_outage {
public:
    explicit io_outage(io_call kind, uint64_t n = 1) : hook_(judge) { plan = {kind, n, 0}; }
    [[nodiscard]] static uint64_t calls() { return plan.calls; }  // of the kind so far
    [[nodiscard]] static bool came() { return plan.calls >= plan.n; }

private:
    static io_verdict judge(io_call call, size_t wanted) {
        const bool fails = call == plan.kind && ++plan.calls >= plan.n;
        return {fails ? EIO : 0, wanted};
    }
    struct outage {
        io_call kind;
        uint64_t n;
        uint64_t calls;
    };
    static inline outage plan = {};
    fault_hook hook_;
};
