// What the code under test logs, line by line. The test program's own vsyslog replaces the
// system's.
#pragma once

#include <string>
#include <vector>

class log_capture {
public:
    log_capture();   // begins with an empty list; one at a time
    ~log_capture();  // lines logged while none is alive are dropped
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;
    // Each line as it was sent, its line end included, "name(123)" shown as "name(#)" and
    // "tarn:123" as "tarn:#".
    [[nodiscard]] std::vector<std::string> lines() const;
    [[nodiscard]] std::string last() const;                 // "" when there is no line
    [[nodiscard]] bool has(const std::string& part) const;  // some line contains it
    [[nodiscard]] size_t count(const std::string& part) const;
    void clear();
};

// The expected side: easier to read in the diff of a failure.
inline std::vector<std::string> log_lines(std::vector<std::string> lines) {
    return lines;
}
