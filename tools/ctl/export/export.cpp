#include "ctl/export/export.h"

int run_export(const export_request&, const output_style&) {
    return complain("not built yet");
}
