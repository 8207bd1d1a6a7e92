#include "support/log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <gtest/gtest.h>
#include <regex>
#include <syslog.h>

static std::vector<std::string>* captured = nullptr;

extern "C" void vsyslog(int priority, const char* format, va_list arguments) {
    char message[8192];
    vsnprintf(message, sizeof message, format, arguments);
    EXPECT_EQ(priority & LOG_PRIMASK, LOG_ERR) << message;
    if (captured != nullptr) {
        captured->push_back(mask_line_number(message));
    }
}

std::string mask_line_number(const std::string& line) {
    static const std::regex with_name("^((ERR: )?[A-Za-z_][A-Za-z0-9_]*)\\([0-9]+\\)");
    static const std::regex service("^tarn:[0-9]+");
    return std::regex_replace(std::regex_replace(line, with_name, "$1(#)"), service, "tarn:#");
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
