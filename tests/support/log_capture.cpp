#include "support/log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <gtest/gtest.h>
#include <syslog.h>

#include "support/mask.h"

static std::vector<std::string>* captured = nullptr;

extern "C" void vsyslog(int priority, const char* format, va_list arguments) {
    char message[8192];
    vsnprintf(message, sizeof message, format, arguments);
    EXPECT_EQ(priority & LOG_PRIMASK, LOG_ERR) << message;
    if (captured != nullptr) {
        captured->push_back(mask_line_number(message));
    }
}

// The name of the same call in a build with checked calls.
extern "C" void checked_vsyslog(int priority, int, const char* format,
                                va_list arguments) __asm__("__vsyslog_chk");
void checked_vsyslog(int priority, int, const char* format, va_list arguments) {
    vsyslog(priority, format, arguments);
}

log_capture::log_capture() {
    EXPECT_EQ(captured, nullptr);
    captured = new std::vector<std::string>;
}

log_capture::~log_capture() {
    delete captured;
    captured = nullptr;
}

std::vector<std::string> log_capture::lines() const {
    return *captured;
}

std::string log_capture::last() const {
    return captured->empty() ? "" : captured->back();
}

size_t log_capture::count(const std::string& part) const {
    size_t found = 0;
    for (const std::string& line : *captured) {
        found += line.find(part) != std::string::npos ? 1 : 0;
    }
    return found;
}

bool log_capture::has(const std::string& part) const {
    return count(part) > 0;
}

void log_capture::clear() {
    captured->clear();
}
