#include "platform/programs.h"

#include <cerrno>
#include <csignal>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

// The signals that were blocked when this process started, before it blocked any itself.
static sigset_t mask_now() {
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    return mask;
}
static const sigset_t callers_mask = mask_now();

// The program gets the signals as this process got them, not what it ignores or blocks itself.
// `apart`: in a separate process group, which Ctrl-C on the terminal does not reach.
static void set_signals(posix_spawnattr_t* attributes, bool apart) {
    sigset_t ignored_here;
    sigemptyset(&ignored_here);
    sigaddset(&ignored_here, SIGPIPE);
    sigaddset(&ignored_here, SIGXFSZ);
    posix_spawnattr_setsigdefault(attributes, &ignored_here);
    posix_spawnattr_setsigmask(attributes, &callers_mask);
    const int group = apart ? POSIX_SPAWN_SETPGROUP : 0;  // the default group is its own
    posix_spawnattr_setflags(
        attributes, static_cast<short>(POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | group));
}

// Standard output goes to `out_fd` unless that is -1; every descriptor above the three standard
// ones is closed. Returns false without memory.
static bool set_descriptors(posix_spawn_file_actions_t* actions, int out_fd) {
    return (out_fd < 0 || posix_spawn_file_actions_adddup2(actions, out_fd, STDOUT_FILENO) == 0) &&
           posix_spawn_file_actions_addclosefrom_np(actions, STDERR_FILENO + 1) == 0;
}

// The parent of this process may have left SIGCHLD ignored; then no wait status would be kept.
static void keep_wait_statuses() {
    struct sigaction now = {};
    if (sigaction(SIGCHLD, nullptr, &now) == 0 &&
        (now.sa_handler == SIG_IGN || (now.sa_flags & SA_NOCLDWAIT) != 0)) {
        signal(SIGCHLD, SIG_DFL);
    }
}

static pid_t start(char* const argv[], int out_fd, bool apart) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    if (posix_spawn_file_actions_init(&actions) != 0) {
        return -1;
    }
    if (posix_spawnattr_init(&attributes) != 0) {
        posix_spawn_file_actions_destroy(&actions);
        return -1;
    }
    keep_wait_statuses();
    set_signals(&attributes, apart);
    pid_t pid = -1;
    const bool started = set_descriptors(&actions, out_fd) &&
                         posix_spawn(&pid, argv[0], &actions, &attributes, argv, environ) == 0;
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return started ? pid : -1;
}

pid_t program_start(char* const argv[], int out_fd) {
    return start(argv, out_fd, false);
}

int program_wait(pid_t pid) {
    int status = 0;
    pid_t ended = -1;
    do {
        ended = waitpid(pid, &status, 0);
    } while (ended < 0 && errno == EINTR);
    return ended == pid ? status : -1;
}

static int run(char* const argv[], bool apart) {
    const pid_t pid = start(argv, -1, apart);
    const int status = pid > 0 ? program_wait(pid) : -1;
    return status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int program_run(char* const argv[]) {
    return run(argv, false);
}

int program_run_apart(char* const argv[]) {
    return run(argv, true);
}
