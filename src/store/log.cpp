#include "store/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <syslog.h>

static constexpr size_t LINE_SIZE = 3 * 4096;  // two of the longest paths, and words

log_line_sink log_sink = nullptr;

static bool is_control(unsigned char c) {
    return c < 0x20 || c == 0x7F;
}

void log_escape(const char* text, char* out, size_t size) {
    constexpr size_t ESCAPED_SIZE = sizeof "\\x00" - 1;
    size_t used = 0;
    for (const char* from = text; *from != '\0'; from++) {
        const auto c = static_cast<unsigned char>(*from);
        const size_t wanted = is_control(c) ? ESCAPED_SIZE : 1;
        if (used + wanted >= size) {
            break;
        }
        if (is_control(c)) {
            snprintf(out + used, ESCAPED_SIZE + 1, "\\x%02x", unsigned{c});
        } else {
            out[used] = static_cast<char>(c);
        }
        used += wanted;
    }
    out[used] = '\0';
}

[[gnu::format(printf, 1, 2)]] static void send(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_ERR, format, arguments);
    va_end(arguments);
}

void tarn_log(const char* format, ...) {
    char line[LINE_SIZE];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    const size_t length = strlen(line);
    const bool ended = length > 0 && line[length - 1] == '\n';
    if (ended) {
        line[length - 1] = '\0';
    }
    char shown[LINE_SIZE + 1];
    log_escape(line, shown, LINE_SIZE);
    if (ended) {
        const size_t end = strlen(shown);  // LINE_SIZE - 1 at most
        memcpy(shown + end, "\n", sizeof "\n");
    }
    if (log_sink != nullptr) {
        log_sink(shown);
    } else {
        send("%s", shown);
    }
}

bool log_missing_argument(const char* name, int line, const char* argument) {
    tarn_log("ERR: %s(%d) %s NULL pointer\n", name, line, argument);
    return true;
}
