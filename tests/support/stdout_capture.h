// What the code under test prints on standard output.
#pragma once

#include <string>

class stdout_capture {
public:
    stdout_capture();
    ~stdout_capture();
    stdout_capture(const stdout_capture&) = delete;
    stdout_capture& operator=(const stdout_capture&) = delete;
    [[nodiscard]] std::string text();  // everything printed since the start

private:
    int kept_;  // the real standard output
    int file_;
};
