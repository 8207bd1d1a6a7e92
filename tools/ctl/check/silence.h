// For calls into rooms that print or log: what they say is kept from the user. Below: log.h.
#pragma once

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "store/log.h"

// Alive: what is printed on a stream goes nowhere.
class silence {
public:
    explicit silence(FILE* stream) : stream_(stream) {
        (void)fflush(stream_);
        kept_ = fcntl(fileno(stream_), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        silent_ = kept_ >= 0 && nowhere >= 0 && dup2(nowhere, fileno(stream_)) >= 0;
        if (nowhere >= 0) {
            (void)close(nowhere);
        }
    }
    ~silence() {
        if (silent_) {
            (void)fflush(stream_);
            (void)dup2(kept_, fileno(stream_));
        }
        if (kept_ >= 0) {
            (void)close(kept_);
        }
    }
    silence(const silence&) = delete;
    silence& operator=(const silence&) = delete;
    [[nodiscard]] bool is_silent() const { return silent_; }

private:
    FILE* stream_;
    int kept_;  // the stream's own file
    bool silent_;
};

// Alive: lines that rooms below log are dropped. What they say is in the findings.
class quiet_log {
public:
    quiet_log() : before_(log_sink) { log_sink = drop_line; }
    ~quiet_log() { log_sink = before_; }
    quiet_log(const quiet_log&) = delete;
    quiet_log& operator=(const quiet_log&) = delete;

private:
    static void drop_line(const char*) {}
    log_line_sink before_;
};
