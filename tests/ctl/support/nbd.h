// The plug-in for nbdkit, and the programs that speak NBD, if this machine has them.
// Below: shell.h. Above: the tests of the plug-in.
#pragma once

#include <cstdlib>
#include <string>

#include "system/support/shell.h"

#ifndef TARN_NBDKIT_PLUGIN
#define TARN_NBDKIT_PLUGIN ""
#endif

// Why tests of the plug-in cannot run here; empty: they can, or must.
inline std::string why_no_nbd() {
    if (std::string(TARN_NBDKIT_PLUGIN).empty()) {
        return "the plug-in was not built: no nbdkit-plugin.h, or a build with sanitizers";
    }
    for (const char* program : {"nbdkit", "qemu-img", "qemu-io", "nbdcopy", "nbdinfo"}) {
        if (shell(std::string("command -v ") + program + " >/dev/null").status != 0 &&
            getenv("TARN_TESTS_SKIP_NOTHING") == nullptr) {
            return std::string(program) + " is not installed";
        }
    }
    return "";
}
