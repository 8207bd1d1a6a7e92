#include "store/open_limit.h"

#include <sys/resource.h>

void raise_open_file_limit() {
    struct rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &limit);  // deliberate: see the contract
    }
}
