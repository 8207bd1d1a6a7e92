// The system log, whose lines go to a file, and the clock, which stands still: creation times, and
// with them the bytes of a file, are the same in every run.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <syslog.h>

#include "campaign/preload/intercept.h"
#include "campaign/preload/own_io.h"

static constexpr unsigned LINES_MAX = 5000;  // enough to see that a log is flooded
static constexpr time_t NOW = 1700000000;

static void take_line(const char* format, va_list arguments) {
    static const int file = getenv(PRELOAD_LOG) != nullptr ? own_open(getenv(PRELOAD_LOG)) : -1;
    static unsigned lines = 0;
    char line[8192];
    const int length = vsnprintf(line, sizeof line - 1, format, arguments);
    if (file < 0 || length < 0 || lines++ >= LINES_MAX) {
        return;
    }
    size_t end = static_cast<size_t>(length) < sizeof line - 1 ? static_cast<size_t>(length)
                                                               : sizeof line - 2;
    if (end == 0 || line[end - 1] != '\n') {
        line[end++] = '\n';
    }
    own_write(file, line, end);
}

static void pass_on(int priority, const char* format, va_list arguments) {
    static const auto next = next_of<void(int, const char*, va_list)>("vsyslog");
    const int before = errno;
    if (in_program_under_test()) {
        take_line(format, arguments);
    } else {
        next(priority, format, arguments);
    }
    errno = before;
}

extern "C" {

void on_vsyslog(int priority, const char* format, va_list arguments) REPLACES(vsyslog);
void on_vsyslog(int priority, const char* format, va_list arguments) {
    pass_on(priority, format, arguments);
}
void on_vsyslog_chk(int priority, int, const char* format, va_list arguments)
    REPLACES(__vsyslog_chk);
void on_vsyslog_chk(int priority, int, const char* format, va_list arguments) {
    pass_on(priority, format, arguments);
}
void on_syslog(int priority, const char* format, ...) REPLACES(syslog);
void on_syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    pass_on(priority, format, arguments);
    va_end(arguments);
}
void on_syslog_chk(int priority, int, const char* format, ...) REPLACES(__syslog_chk);
void on_syslog_chk(int priority, int, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    pass_on(priority, format, arguments);
    va_end(arguments);
}

time_t on_time(time_t* out) REPLACES(time);
time_t on_time(time_t* out) {
    static const auto next = next_of<time_t(time_t*)>("time");
    const time_t now = in_program_under_test() ? NOW : next(nullptr);
    if (out != nullptr) {
        *out = now;
    }
    return now;
}

}  // extern "C"
