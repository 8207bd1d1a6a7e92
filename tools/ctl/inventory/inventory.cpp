#include "ctl/inventory/inventory.h"

int run_inventory(const inventory_request&, const output_style&) {
    return complain("not built yet");
}
