#include "store/uuid.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "metadata.h"
#include "platform.h"
#include "print.h"
#include "store/descriptor.h"
#include "store/header_file.h"
#include "store/log.h"

static bool is_hex(char c) {
    return isxdigit(static_cast<unsigned char>(c)) != 0;
}

bool uuid_of_line(const char* line, uint8_t* out, int n) {
    const char* cursor = line;
    for (int i = 0; i < n; i++) {
        while (*cursor != '\0' && !is_hex(*cursor)) {
            cursor++;
        }
        if (cursor[0] == '\0' || cursor[1] == '\0') {
            return false;
        }
        const char pair[] = {cursor[0], cursor[1], '\0'};
        out[i] = static_cast<uint8_t>(strtol(pair, nullptr, 16));
        cursor += 2;
    }
    return true;
}

int uuid_gen(uint8_t* out, int n) {
    if (log_missing(out == nullptr, "uuid")) {
        return -1;
    }
    char line[64] = {};
    FILE* text = io_allow(io_call::spawn) ? OLIBCPopen("/usr/bin/uuidgen", "r", nullptr) : nullptr;
    if (text == nullptr) {
        log_err("fail to OLIBCPopen '/usr/bin/uuidgen'\n");
        return -1;
    }
    const bool read = fgets(line, sizeof line, text) != nullptr;
    (void)pclose(text);  // deliberate: not OLIBCPclose
    if (!read) {
        log_err("fail to get string from '/usr/bin/uuidgen'\n");
        return -1;
    }
    if (!uuid_of_line(line, out, n)) {
        log_err("'/usr/bin/uuidgen' gave fewer than %d bytes\n", n);
        return -1;
    }
    return 0;
}

int inherit_uuid(const char* oldpath, const uint8_t* kept, uint8_t* out) {
    if (oldpath != nullptr && read_file_uuid(oldpath, out) == 0) {
        return 0;
    }
    if (kept == nullptr) {
        return uuid_gen(out, UUID_SIZE);
    }
    memcpy(out, kept, UUID_SIZE);
    return 0;
}

void change_uuid(const char* kind, uint8_t* of_header, const uint8_t* uuid) {
    printf("TARN_INFO: chagne %s uuid:\n", kind);
    printf("TARN_INFO: from [" UUID_PLAIN "]\n", UUID_ARGS(of_header));
    memcpy(of_header, uuid, UUID_SIZE);
    printf("TARN_INFO: to   [" UUID_PLAIN "]\n", UUID_ARGS(of_header));
}
