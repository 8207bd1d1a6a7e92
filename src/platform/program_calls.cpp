// The calls that run programs, and the streams that are open on them.
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform.h"
#include "platform/programs.h"

// A stream of OLIBCPopen, and its program. A caller may close it with pclose() or fclose(), which
// do not wait for the program: the pipe behind the descriptor shows whether the stream is still
// open.
struct open_stream {
    FILE* stream;  // null: the row is free
    pid_t pid;
    int fd;
    dev_t device;  // these two: the pipe of `fd`
    ino_t inode;
};
static open_stream open_streams[16];

static open_stream row_of(FILE* stream, pid_t pid) {
    struct stat status = {};
    (void)fstat(fileno(stream), &status);
    return {stream, pid, fileno(stream), status.st_dev, status.st_ino};
}

static bool is_open(const open_stream& row) {
    struct stat status = {};
    return row.stream != nullptr && fstat(row.fd, &status) == 0 && status.st_dev == row.device &&
           status.st_ino == row.inode;
}

// A free row, or null. Also reaps the programs whose stream was closed and that have ended, each by
// its own process id.
static open_stream* free_row() {
    open_stream* found = nullptr;
    for (open_stream& row : open_streams) {
        if (row.stream != nullptr && !is_open(row) && waitpid(row.pid, nullptr, WNOHANG) != 0) {
            row = {};
        }
        if (row.stream == nullptr) {
            found = &row;
        }
    }
    return found;
}

static FILE* start_with_stream(char* const argv[]) {
    open_stream* row = free_row();
    int ends[2];
    if (row == nullptr || pipe2(ends, O_CLOEXEC) != 0) {
        return nullptr;
    }
    const pid_t pid = program_start(argv, ends[1]);
    close(ends[1]);
    FILE* stream = pid > 0 ? fdopen(ends[0], "r") : nullptr;
    if (stream == nullptr) {
        close(ends[0]);
        if (pid > 0) {
            (void)program_wait(pid);  // without its output, its status is useless
        }
        return nullptr;
    }
    *row = row_of(stream, pid);
    return stream;
}

// Fills the argument list, `program` first. Returns false if there are too many.
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
    for (open_stream& row : open_streams) {
        if (row.stream == stream && is_open(row)) {
            const pid_t pid = row.pid;
            row = {};
            (void)fclose(stream);
            return program_wait(pid);
        }
    }
    return -1;
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
