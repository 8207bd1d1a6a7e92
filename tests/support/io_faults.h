// Makes the n-th system call on a file fail, as a worn disk would.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "store/descriptor.h"
#include "support/fault_hook.h"

// Alive: the n-th call (from 1) of the given kinds fails with `error`; error 0: the n-th read or
// write moves half of its bytes only. n 0 only counts. The start of a bulk transfer counts as a
// call only if `kinds` names it.
class io_fault_at {
public:
    io_fault_at(uint64_t n, int error, std::vector<io_call> kinds = {});  // no kinds: every kind
    [[nodiscard]] bool fired() const;                                     // the n-th call was made
    [[nodiscard]] uint64_t calls() const;       // calls of these kinds so far
    [[nodiscard]] io_call failed_call() const;  // once fired

private:
    fault_hook hook_;
};

// The calls that a test made fail one after another, by name: what "whichever call fails" covered.
class failed_calls {
public:
    bool add(const io_fault_at& fault);          // after a run; false: no call failed in it
    [[nodiscard]] std::string in_order() const;  // "open seek read seek read"
    [[nodiscard]] std::string kinds() const;     // each once, as io_call lists them
    [[nodiscard]] size_t count(io_call kind) const;

private:
    std::vector<io_call> calls_;
};
