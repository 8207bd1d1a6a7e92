#include "cli/later_commands.h"

#include "store/log.h"

int later_command(const char* name) {
    log_err("--%s is not available in this version\n", name);
    return -1;
}
