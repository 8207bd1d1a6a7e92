// A disk that goes away: the n-th system call of a kind (from 1) and all after it fail with EIO.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>

#include "store/descriptor.h"

class io_outage {
public:
    explicit io_outage(io_call kind, uint64_t n = 1) {
        EXPECT_EQ(io_fault, nullptr);
        plan = {kind, n, 0};
        io_fault = judge;
    }
    ~io_outage() { io_fault = nullptr; }
    io_outage(const io_outage&) = delete;
    io_outage& operator=(const io_outage&) = delete;
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
};
