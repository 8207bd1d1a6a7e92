#include "ctl/health/health.h"

int run_health(const health_request&, const output_style&) {
    return complain("not built yet");
}
