// The system log. Every failure is logged once, where it is found; nothing of it reaches standard
// output. Lines are sent at LOG_ERR; the log is never opened first.
#pragma once

#include <cstddef>

// Copies `text` to `out` as a log line may carry it: byte for byte, but a control byte as \x and
// two hexadecimal digits, so that no name found on disk ends a line or reaches a terminal. Cut to
// fit.
void log_escape(const char* text, char* out, size_t size);

// Receives each line in place of the system log, as the log would carry it: names in front, control
// bytes escaped, the message's own line end included. Null: the system log. The line is valid
// during the call only.
using log_line_sink = void (*)(const char* line);
extern log_line_sink log_sink;

// Every line is sent here; the macros below put the names in front. Control bytes are escaped,
// except the line end of the message.
[[gnu::format(printf, 1, 2)]] void tarn_log(const char* format, ...);

// "ERR: <function>(<line>) " and the message. Macros, since the log carries the bare __func__;
// called from named functions, since in a lambda that is "operator()".
#define log_err(message, ...) log_err_as(__func__, message __VA_OPT__(, ) __VA_ARGS__)
// The same under another name: for names that the language reserves.
#define log_err_as(name, message, ...) \
    tarn_log("ERR: %s(%d) " message, name, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
// True when `missing`, logged: an argument of that name is null, or a descriptor 0.
#define log_missing(missing, argument) log_missing_as(__func__, missing, argument)
#define log_missing_as(name, missing, argument) \
    ((missing) && log_missing_argument(name, __LINE__, argument))
bool log_missing_argument(const char* name, int line, const char* argument);
// "<function>(<line>) " and the message: for what is logged but is no failure of the function.
#define log_note_as(name, message, ...) \
    tarn_log("%s(%d) " message, name, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
// "tarn:<line>" and the message: the service messages.
#define log_service(message, ...) \
    tarn_log("%s:%d" message, "tarn", __LINE__ __VA_OPT__(, ) __VA_ARGS__)
