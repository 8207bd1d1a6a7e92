#include "support/io_faults.h"

#include <algorithm>

static struct {
    uint64_t n;
    int error;
    std::vector<io_call> kinds;
    uint64_t calls;
} plan;

static io_verdict judge(io_call call, size_t wanted) {
    const io_verdict pass = {0, wanted};
    const bool counts = plan.kinds.empty() ? call != io_call::bulk
                                           : std::find(plan.kinds.begin(), plan.kinds.end(),
                                                       call) != plan.kinds.end();
    if (!counts || ++plan.calls != plan.n) {
        return pass;
    }
    return plan.error != 0 ? io_verdict{plan.error, wanted} : io_verdict{0, wanted / 2};
}

io_fault_at::io_fault_at(uint64_t n, int error, std::vector<io_call> kinds) : hook_(judge) {
    plan = {n, error, std::move(kinds), 0};
}

bool io_fault_at::fired() const {
    return plan.n != 0 && plan.calls >= plan.n;
}

uint64_t io_fault_at::calls() const {
    return plan.calls;
}
