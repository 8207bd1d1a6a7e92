// A /dev/log for the test: the socket that programs send their log lines to.
// Below: mask.h. Above: sandbox.h.
#pragma once

#include <string>
#include <vector>

class log_socket {
public:
    explicit log_socket(const std::string& path);  // makes the socket there
    ~log_socket();                                 // removes it
    log_socket(const log_socket&) = delete;
    log_socket& operator=(const log_socket&) = delete;
    [[nodiscard]] int fd() const { return fd_; }
    // Appends what has arrived to `lines`, in the form that run_result::log describes. A datagram
    // of another form, or at another priority than LOG_ERR, fails the test.
    void take_arrived(std::vector<std::string>* lines) const;

private:
    std::string path_;
    int fd_;
};
