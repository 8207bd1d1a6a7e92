// One line in the system log at LOG_ERR: what the default platform found wrong.
#pragma once

[[gnu::format(printf, 1, 2)]] void platform_report(const char* format, ...);
