#include "system/support/log_socket.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include "support/mask.h"

log_socket::log_socket(const std::string& path)
    : path_(path), fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    EXPECT_LT(path.size(), sizeof address.sun_path);
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
        << path << ": " << strerror(errno);
}

log_socket::~log_socket() {
    close(fd_);
    unlink(path_.c_str());
}

// "<11>Nov 21 05:07:00 tarn: message" -> "message"; false when `datagram` is not of that form.
static bool take_message(const std::string& datagram, int* priority, std::string* message) {
    int at = 0;
    constexpr size_t time_length = sizeof "Mon dd hh:mm:ss " - 1;
    if (sscanf(datagram.c_str(), "<%d>%n", priority, &at) != 1 || at == 0) {
        return false;
    }
    const size_t tag = static_cast<size_t>(at) + time_length;
    const size_t colon = datagram.find(": ", tag);
    if (colon == std::string::npos || datagram.find(' ', tag) < colon) {
        return false;
    }
    *message = datagram.substr(colon + 2);
    return true;
}

void log_socket::take_arrived(std::vector<std::string>* lines) const {
    char buffer[16384];
    ssize_t got = 0;
    while ((got = recv(fd_, buffer, sizeof buffer, 0)) >= 0) {
        const std::string datagram(buffer, static_cast<size_t>(got));
        int priority = -1;
        std::string message;
        EXPECT_TRUE(take_message(datagram, &priority, &message)) << datagram;
        EXPECT_EQ(priority & LOG_PRIMASK, LOG_ERR) << datagram;
        lines->push_back(mask_line_number(message));
    }
}
