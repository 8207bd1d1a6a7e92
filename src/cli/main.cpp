// The way in: makes the process safe to write in, sets the switches, runs the command.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

#include "cli/commands.h"
#include "fri/fri_journal.h"
#include "jnl/jnl_commit.h"
#include "store/log.h"

static bool is_closed(int fd) {
    return fcntl(fd, F_GETFD) == -1 && errno == EBADF;
}

// Opens `fd` on /dev/null. Whatever other descriptor that needs is closed again: a closed standard
// input stays closed. False on failure.
static bool open_on_null(int fd) {
    const int null = open("/dev/null", O_RDWR);
    if (null == fd) {
        return true;
    }
    if (null < 0) {
        return false;
    }
    const bool opened = dup2(null, fd) == fd;
    close(null);
    return opened;
}

// A metadata file that got descriptor 1 or 2 would be overwritten with report lines.
static bool hold_standard_descriptors() {
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
        if (is_closed(fd) && !open_on_null(fd)) {
            log_err("Fail to open descriptor %d on /dev/null\n", fd);
            return false;
        }
    }
    return true;
}

int main(int argc, char** argv) {
    fri_mismatch_report = 1;
    jnl_search_quiet = 1;
    if (!hold_standard_descriptors()) {
        return -1;
    }
    signal(SIGPIPE, SIG_IGN);  // a closed pipe on standard output never stops a repair halfway
    return run_command(argc, argv);
}
