// Entry point: secures the standard descriptors, sets the switches, runs the command.
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

// Called for the standard descriptors in ascending order, so that each is the lowest free one.
static bool open_on_null(int fd) {
    return open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_RDWR) == fd;
}

// A metadata file that got descriptor 1 or 2 would be overwritten with printed lines; descriptor 0
// means that no file is open.
static bool hold_standard_descriptors() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
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
    signal(SIGXFSZ, SIG_IGN);  // nor does a limit of file sizes: the write fails, and is reported
    return run_command(argc, argv);
}
