#include "support/stdout_capture.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

stdout_capture::stdout_capture() {
    fflush(stdout);
    kept_ = dup(STDOUT_FILENO);
    file_ = memfd_create("stdout", MFD_CLOEXEC);
    EXPECT_GT(file_, 0);
    dup2(file_, STDOUT_FILENO);
}

stdout_capture::~stdout_capture() {
    // The message of a failed expectation is in here too.
    const std::string captured = testing::Test::HasFailure() ? text() : "";
    fprintf(stderr, "%s", captured.c_str());
    fflush(stdout);
    dup2(kept_, STDOUT_FILENO);
    close(kept_);
    close(file_);
}

std::string stdout_capture::text() {
    fflush(stdout);
    std::string result(static_cast<size_t>(lseek(file_, 0, SEEK_CUR)), '\0');
    EXPECT_EQ(pread(file_, result.data(), result.size(), 0), static_cast<ssize_t>(result.size()));
    return result;
}
