// bench-timed OUTPUT COMMAND...: runs a command with its standard output and standard error in the
// file OUTPUT, and prints its wall time and its processor time (user and system), both in
// nanoseconds, and its highest memory in KiB. Exit status: the command's, or 1.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

static constexpr int64_t SECOND = 1000000000;

static int64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * SECOND + time.tv_nsec;
}

static int64_t nanoseconds(const timeval& time) {
    return time.tv_sec * SECOND + time.tv_usec * 1000;
}

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: bench-timed OUTPUT COMMAND...\n");
        return 1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, argv[1], O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    const int64_t begin = now();
    pid_t child = 0;
    const int failed = posix_spawnp(&child, argv[2], &actions, nullptr, argv + 2, environ);
    if (failed != 0) {
        fprintf(stderr, "bench-timed: %s: %s\n", argv[2], strerror(failed));
        return 1;
    }
    int status = 0;
    rusage used{};
    while (wait4(child, &status, 0, &used) < 0 && errno == EINTR) {
    }
    printf("%lld %lld %ld\n", static_cast<long long>(now() - begin),
           static_cast<long long>(nanoseconds(used.ru_utime) + nanoseconds(used.ru_stime)),
           used.ru_maxrss);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
