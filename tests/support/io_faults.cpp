#include "support/io_faults.h"

#include <algorithm>
#include <iterator>

static struct {
    uint64_t n;
    int error;
    std::vector<io_call> kinds;
    uint64_t calls;
    io_call failed;
} plan;

static io_verdict judge(io_call call, size_t wanted) {
    const io_verdict pass = {0, wanted};
    const bool counts = plan.kinds.empty() ? call != io_call::bulk
                                           : std::find(plan.kinds.begin(), plan.kinds.end(),
                                                       call) != plan.kinds.end();
    if (!counts || ++plan.calls != plan.n) {
        return pass;
    }
    plan.failed = call;
    return plan.error != 0 ? io_verdict{plan.error, wanted} : io_verdict{0, wanted / 2};
}

io_fault_at::io_fault_at(uint64_t n, int error, std::vector<io_call> kinds) : hook_(judge) {
    plan = {n, error, std::move(kinds), 0, {}};
}

bool io_fault_at::fired() const {
    return plan.n != 0 && plan.calls >= plan.n;
}

uint64_t io_fault_at::calls() const {
    return plan.calls;
}

io_call io_fault_at::failed_call() const {
    return plan.failed;
}

static const char* const call_names[] = {
    "open",   "read", "write",  "seek",  "sync", "bulk",  "truncate", "allocate", "stat",
    "rename", "link", "unlink", "mkdir", "list", "owner", "lock",     "spawn"};
static_assert(std::size(call_names) == static_cast<size_t>(io_call::spawn) + 1);

static std::string names_of(const std::vector<io_call>& calls) {
    std::string names;
    for (const io_call call : calls) {
        names += (names.empty() ? "" : " ") + std::string(call_names[static_cast<size_t>(call)]);
    }
    return names;
}

bool failed_calls::add(const io_fault_at& fault) {
    if (fault.fired()) {
        calls_.push_back(fault.failed_call());
    }
    return fault.fired();
}

std::string failed_calls::in_order() const {
    return names_of(calls_);
}

std::string failed_calls::kinds() const {
    std::vector<io_call> kinds = calls_;
    std::sort(kinds.begin(), kinds.end());
    kinds.erase(std::unique(kinds.begin(), kinds.end()), kinds.end());
    return names_of(kinds);
}

size_t failed_calls::count(io_call kind) const {
    return static_cast<size_t>(std::count(calls_.begin(), calls_.end(), kind));
}
