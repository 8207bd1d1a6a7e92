#include "platform/report.h"

#include <cstdarg>
#include <syslog.h>

void platform_report(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_ERR, format, arguments);
    va_end(arguments);
}
