#include "ctl/space/space.h"

int run_space(const space_request&, const output_style&) {
    return complain("not built yet");
}
