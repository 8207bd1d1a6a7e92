// The configuration of the default platform: /etc/tarn/platform.conf, or the file that the
// environment variable TARN_PLATFORM_CONF names. Read once, at the first call that needs it. If run
// as root, a file that another user can change is refused.
// Below: programs.h for the longest argument list. Above: every call that needs a setting.
#pragma once

#include <cstddef>

constexpr size_t PLATFORM_VALUE_SIZE = 8192;  // bytes of one value, the closing zero included

// The characters around keys and values, and between the words of a value.
constexpr const char* PLATFORM_BLANKS = " \t\r\n";

// One setting. If the file does not have its key, it has its default value, or is not `given`.
struct platform_setting {
    bool given;
    char value[PLATFORM_VALUE_SIZE];
};

struct platform_config {
    platform_setting journal_root;    // empty: none
    platform_setting volumes;         // mount paths separated by blanks
    platform_setting extent_shift;    // decimal, 9..30
    platform_setting service_pause;   // program and arguments separated by blanks
    platform_setting service_resume;  // the same
};

// Null if the file cannot be read, is refused or has an invalid line: logged once, by the first
// call.
const platform_config* platform_config_get();
// Forgets what was read: for tests.
void platform_config_forget();

// Logs one line at LOG_ERR: what the default platform found wrong.
[[gnu::format(printf, 1, 2)]] void platform_report(const char* format, ...);
