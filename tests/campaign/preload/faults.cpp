#include "campaign/preload/faults.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "campaign/preload/own_io.h"

struct chosen_fault {
    call_kind kind;
    unsigned long long number;  // from 1; 0: no fault
    int error;
    bool half_way;
    bool forever;
};

static bool under_test = false;
static chosen_fault chosen;
static unsigned long long calls[CALL_KINDS];
static int notes = -1;
static bool hit = false;
static struct stat configuration;

static void read_fault(const char* text) {
    char kind[16] = "";
    char error[16] = "";
    char times[16] = "";
    if (sscanf(text, "%15[^:]:%llu:%15[^:]:%15s", kind, &chosen.number, error, times) != 4) {
        abort();  // a campaign that injects nothing must not look like one that passes
    }
    chosen.kind = call_of_name(kind);
    chosen.half_way = strcmp(error, "short") == 0;
    chosen.error = chosen.half_way ? 0 : atoi(error);
    chosen.forever = strcmp(times, "forever") == 0;
}

[[gnu::constructor]] static void begin() {
    under_test = strcmp(program_invocation_short_name, "tarn") == 0;
    const char* fault = getenv(PRELOAD_FAULT);
    const char* notes_path = getenv(PRELOAD_NOTES);
    if (!under_test) {
        return;
    }
    if (fault != nullptr) {
        read_fault(fault);
    }
    if (notes_path != nullptr) {
        notes = own_open(notes_path);
    }
    const char* named = getenv("TARN_PLATFORM_CONF");
    if (named != nullptr) {
        (void)own_stat(AT_FDCWD, named, 0, &configuration);
    }
}

[[gnu::destructor]] static void end() {
    for (size_t kind = 0; kind < CALL_KINDS && notes >= 0; kind++) {
        char line[64];
        const int length = snprintf(line, sizeof line, "calls %s %llu\n",
                                    call_name(static_cast<call_kind>(kind)), calls[kind]);
        own_write(notes, line, static_cast<size_t>(length));
    }
}

bool in_program_under_test() {
    return under_test;
}

static bool is_configuration(const struct stat& status) {
    return configuration.st_ino != 0 && status.st_ino == configuration.st_ino &&
           status.st_dev == configuration.st_dev;
}

static bool is_counted_path(const char* path) {
    struct stat status = {};
    return strncmp(path, "/proc/", 6) != 0 && strncmp(path, "/etc/", 5) != 0 &&
           strncmp(path, "/run/", 5) != 0 && strcmp(path, "/dev/null") != 0 &&
           strcmp(path, "/dev/log") != 0 &&
           !(own_stat(AT_FDCWD, path, 0, &status) && is_configuration(status));
}

static bool is_counted_descriptor(int fd) {
    struct stat status = {};
    return fd > 2 && own_fstat(fd, &status) &&
           (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) && !is_configuration(status);
}

bool is_counted(const call_subject& subject) {
    const int before = errno;
    const bool counted =
        under_test && (subject.path != nullptr ? is_counted_path(subject.path)
                                               : is_counted_descriptor(subject.fd));
    errno = before;
    return counted;
}

// The first call that failed, for the report: "hit KIND PATH".
static void note_hit(call_kind kind, const call_subject& subject) {
    char path[4096];
    char line[4200];
    if (hit || notes < 0) {
        return;
    }
    hit = true;
    if (subject.path == nullptr) {
        own_path_of(subject.fd, path, sizeof path);
    }
    const int length = snprintf(line, sizeof line, "hit %s %.4000s\n", call_name(kind),
                                subject.path != nullptr ? subject.path : path);
    own_write(notes, line, static_cast<size_t>(length));
}

fault_verdict next_fault(call_kind kind, const call_subject& subject) {
    if (!is_counted(subject)) {
        return {};
    }
    const int before = errno;
    const unsigned long long number = ++calls[static_cast<size_t>(kind)];
    const bool failing = kind == chosen.kind && chosen.number != 0 &&
                         (chosen.forever ? number >= chosen.number : number == chosen.number);
    if (failing) {
        note_hit(kind, subject);
    }
    errno = before;
    return failing ? fault_verdict{chosen.error, chosen.half_way} : fault_verdict{};
}
