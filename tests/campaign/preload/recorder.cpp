#include "campaign/preload/recorder.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "campaign/preload/call_kinds.h"
#include "campaign/preload/faults.h"
#include "campaign/preload/own_io.h"

static int recording = -1;
static unsigned long long kill_at = 0;
static unsigned long long done = 0;

[[gnu::constructor(200)]] static void begin() {
    const char* path = getenv(PRELOAD_RECORD);
    const char* number = getenv(PRELOAD_KILL);
    if (path != nullptr && strcmp(program_invocation_short_name, "tarn") == 0) {
        recording = own_open(path);
        kill_at = number != nullptr ? strtoull(number, nullptr, 10) : 0;
    }
}

bool is_recording() {
    return recording >= 0;
}

void before_operation() {
    if (is_recording() && kill_at == done + 1) {
        syscall(SYS_kill, getpid(), SIGKILL);
    }
}

static uint32_t length_of(const char* text) {
    return text != nullptr ? static_cast<uint32_t>(strlen(text)) : 0;
}

void record(op_head head, const char* path, const char* other, const void* bytes, size_t len) {
    if (!is_recording()) {
        return;
    }
    const int before = errno;
    head.path_length = length_of(path);
    head.other_length = length_of(other);
    head.bytes_length = static_cast<uint32_t>(len);
    own_write(recording, &head, sizeof head);
    own_write(recording, path, head.path_length);
    own_write(recording, other, head.other_length);
    own_write(recording, bytes, len);
    done++;
    errno = before;
}

void record_on_descriptor(op_kind kind, int fd, uint64_t number, const void* bytes, size_t len) {
    if (!is_recording()) {
        return;
    }
    const int before = errno;
    struct stat status = {};
    char path[4096] = "";
    (void)own_fstat(fd, &status);
    if (S_ISDIR(status.st_mode)) {
        own_path_of(fd, path, sizeof path);
        kind = kind == op_kind::sync_file ? op_kind::sync_directory : kind;
    }
    const op_head head = {kind, 0, 0, 0, status.st_dev, status.st_ino, number};
    record(head, path, nullptr, bytes, len);
    errno = before;
}
