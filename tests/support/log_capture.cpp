#include "support/log_capture.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <gtest/gtest.h>
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

static size_t after_digits(const std::string& line, size_t at) {
    while (at < line.size() && isdigit(static_cast<unsigned char>(line[at])) != 0) {
        at++;
    }
    return at;
}

static size_t after_name(const std::string& line, size_t at) {
    while (at < line.size() &&
           (isalnum(static_cast<unsigned char>(line[at])) != 0 || line[at] == '_')) {
        at++;
    }
    return at;
}

std::string mask_line_number(const std::string& line) {
    const bool service = line.rfind("tarn:", 0) == 0;
    const size_t name = line.rfind("ERR: ", 0) == 0 ? 5 : 0;
    const size_t open = service ? 4 : after_name(line, name);
    if (open == name || open >= line.size() || (!service && line[open] != '(')) {
        return line;
    }
    const size_t end = after_digits(line, open + 1);
    if (end == open + 1 || (!service && line.compare(end, 1, ")") != 0)) {
        return line;
    }
    return line.substr(0, open + 1) + "#" + line.substr(end);
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
