#include "ctl/guard/guard.h"

int run_guard(const guard_request&, const output_style&) {
    return complain("not built yet");
}
