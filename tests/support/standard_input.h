// Standard input of this process, for one test: the bytes of a pipe, then its end; or a terminal.
#pragma once

#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

class standard_input {
public:
    explicit standard_input(const std::string& text) : kept_(dup(STDIN_FILENO)) {
        int ends[2] = {};
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        EXPECT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(ends[1]);
        take(ends[0]);
    }
    explicit standard_input(int terminal) : kept_(dup(STDIN_FILENO)) { take(terminal); }
    ~standard_input() { take(kept_); }
    standard_input(const standard_input&) = delete;
    standard_input& operator=(const standard_input&) = delete;

private:
    static void take(int fd) {
        dup2(fd, STDIN_FILENO);
        close(fd);
        setvbuf(stdin, nullptr, _IONBF, 0);  // nothing after the answer is read in advance
        clearerr(stdin);
    }
    int kept_;
};
