// The system log. Every failure is logged once, where it is found, and never on standard output.
// Lines are sent at LOG_ERR, without openlog(3).
#pragma once

#include <cstddef>

// Copies `text` to `out` (`size` bytes, cut to fit) and writes each control byte as \x and two
// hexadecimal digits, so that a name found on disk can neither end a line nor control a terminal.
void log_escape(const char* text, char* out, size_t size);

// Receives each line instead of the system log, in its final form: names in front, control bytes
// escaped, the message's line end included. Null: lines go to the system log. The line is valid
// only during the call.
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
// True if `missing`, and then logged: the argument of that name is null, or is descriptor 0.
#define log_missing(missing, argument) log_missing_as(__func__, missing, argument)
#define log_missing_as(name, missing, argument) \
    ((missing) && log_missing_argument(name, __LINE__, argument))
bool log_missing_argument(const char* name, int line, const char* argument);
// "<function>(<line>) " and the message: for a line that does not report a failure.
#define log_note_as(name, message, ...) \
    tarn_log("%s(%d) " message, name, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
// "tarn:<line>" and the message: the service messages.
#define log_service(message, ...) \
    tarn_log("%s:%d" message, "tarn", __LINE__ __VA_OPT__(, ) __VA_ARGS__)
