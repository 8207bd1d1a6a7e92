#include "ctl/output.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

int complain(const std::string& problem) {
    fprintf(stderr, "tarnctl: %s\n", problem.c_str());
    return EXIT_COULD_NOT_RUN;
}

int cannot_write() {
    return complain(std::string("cannot write the result: ") + strerror(errno));
}

int refuse(const std::string& reason) {
    fprintf(stderr, "tarnctl: refused: %s\n", reason.c_str());
    return EXIT_REFUSED;
}
