#include "platform/programs.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform.h"

// Signals as at the start of a login: the tool itself ignores a closed pipe.
static void default_signals(posix_spawnattr_t* attributes) {
    sigset_t pipe_only;
    sigset_t none;
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(attributes, &pipe_only);
    posix_spawnattr_setsigmask(attributes, &none);
    posix_spawnattr_setflags(attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
}

pid_t program_start(char* const argv[], int out_fd) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    if (posix_spawn_file_actions_init(&actions) != 0) {
        return -1;
    }
    if (posix_spawnattr_init(&attributes) != 0) {
        posix_spawn_file_actions_destroy(&actions);
        return -1;
    }
    default_signals(&attributes);
    if (out_fd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);
    }
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    pid_t pid = -1;
    const int result = posix_spawn(&pid, argv[0], &actions, &attributes, argv, environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return result == 0 ? pid : -1;
}

int program_wait(pid_t pid) {
    int status = 0;
    pid_t ended = -1;
    do {
        ended = waitpid(pid, &status, 0);
    } while (ended < 0 && errno == EINTR);
    return ended == pid ? status : -1;
}

int program_run(char* const argv[]) {
    const pid_t pid = program_start(argv, -1);
    const int status = pid > 0 ? program_wait(pid) : -1;
    return status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The argument list in front of `rest`'s closing null. False when there are too many.
static bool take_arguments(char** argv, const char* program, va_list rest) {
    int count = 0;
    const char* next = program;
    while (next != nullptr && count < PROGRAM_ARGUMENTS_MAX - 1) {
        argv[count++] = const_cast<char*>(next);
        next = va_arg(rest, const char*);
    }
    argv[count] = nullptr;
    return next == nullptr;
}

// The streams that are open, and their programs.
struct open_stream {
    FILE* stream;  // null: the row is free
    pid_t pid;
};
static open_stream open_streams[16];

static open_stream* find_row(const FILE* stream) {
    for (open_stream& row : open_streams) {
        if (row.stream == stream) {
            return &row;
        }
    }
    return nullptr;
}

// The row for a stream that was just opened. One that carries its address already is of a stream
// that was closed with the standard pclose: its program is waited for here. Null: all are in use.
static open_stream* row_for(const FILE* stream) {
    open_stream* stale = find_row(stream);
    if (stale == nullptr) {
        return find_row(nullptr);
    }
    (void)program_wait(stale->pid);
    return stale;
}

static FILE* start_with_stream(char* const argv[]) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return nullptr;
    }
    FILE* stream = fdopen(ends[0], "r");
    open_stream* row = stream != nullptr ? row_for(stream) : nullptr;
    const pid_t pid = row != nullptr ? program_start(argv, ends[1]) : -1;
    close(ends[1]);
    if (pid > 0) {
        *row = {stream, pid};
        return stream;
    }
    if (row != nullptr) {
        *row = {nullptr, 0};
    }
    if (stream != nullptr) {
        (void)fclose(stream);
    } else {
        close(ends[0]);
    }
    return nullptr;
}

FILE* OLIBCPopen(const char* program, const char* mode, ...) {
    if (program == nullptr || mode == nullptr || mode[0] != 'r') {
        return nullptr;
    }
    char* argv[PROGRAM_ARGUMENTS_MAX];
    va_list rest;
    va_start(rest, mode);
    const bool fits = take_arguments(argv, program, rest);
    va_end(rest);
    return fits ? start_with_stream(argv) : nullptr;
}

int OLIBCPclose(FILE* stream) {
    open_stream* row = stream != nullptr ? find_row(stream) : nullptr;
    if (row == nullptr) {
        return -1;
    }
    const pid_t pid = row->pid;
    *row = {nullptr, 0};
    (void)fclose(stream);
    return program_wait(pid);
}

int OLIBCExec(const char* program, ...) {
    if (program == nullptr) {
        return -1;
    }
    char* argv[PROGRAM_ARGUMENTS_MAX];
    va_list rest;
    va_start(rest, program);
    const bool fits = take_arguments(argv, program, rest);
    va_end(rest);
    return fits ? program_run(argv) : -1;
}
