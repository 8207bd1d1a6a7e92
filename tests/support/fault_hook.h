// Hooks at the system calls, several at a time: the first one that was set is asked first, and the
// others do not see a call that it makes fail.
#pragma once

#include <algorithm>
#include <gtest/gtest.h>
#include <vector>

#include "store/descriptor.h"

// Alive: `hook` is asked about every call. Hooks end in the reverse order in which they began.
class fault_hook {
public:
    explicit fault_hook(io_fault_hook hook) {
        EXPECT_EQ(std::count(hooks.begin(), hooks.end(), hook), 0);
        EXPECT_TRUE(io_fault == nullptr || io_fault == ask_all);
        hooks.push_back(hook);
        io_fault = ask_all;
    }
    ~fault_hook() {
        hooks.pop_back();
        io_fault = hooks.empty() ? nullptr : ask_all;
    }
    fault_hook(const fault_hook&) = delete;
    fault_hook& operator=(const fault_hook&) = delete;

private:
    static io_verdict ask_all(io_call call, size_t wanted) {
        io_verdict verdict = {0, wanted};
        for (const io_fault_hook hook : hooks) {
            verdict = hook(call, wanted);
            if (verdict.error != 0) {
                break;
            }
            wanted = std::min(wanted, verdict.limit);
            verdict.limit = wanted;
        }
        return verdict;
    }
    static inline std::vector<io_fault_hook> hooks;
};
