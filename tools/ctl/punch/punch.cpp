#include "ctl/punch/punch.h"

int run_punch(const punch_request&, const output_style&) {
    return complain("not built yet");
}
