#include "store/log.h"

#include <cstdarg>
#include <cstdio>
#include <syslog.h>

static bool is_control(unsigned char c) {
    return c < 0x20 || c == 0x7F;
}

const char* log_text(const char* name, char* out, size_t size) {
    constexpr size_t ESCAPED_SIZE = sizeof "\\x00" - 1;
    size_t used = 0;
    for (const char* from = name != nullptr ? name : "(null)"; *from != '\0'; from++) {
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
    return out;
}

void tarn_log(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_ERR, format, arguments);
    va_end(arguments);
}
