#include "support/scratch_file.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

scratch_dir::scratch_dir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tarn-test-XXXXXX").string();
    const char* made = mkdtemp(pattern.data());
    EXPECT_NE(made, nullptr) << "mkdtemp " << pattern;
    path_ = pattern;
}

scratch_dir::~scratch_dir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

scratch_file::scratch_file(uint64_t size) : path_(dir_.file("file")) {
    fd_ = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_GT(fd_, 0);
    EXPECT_EQ(ftruncate(fd_, static_cast<off_t>(size)), 0);
}

scratch_file::~scratch_file() {
    close(fd_);
}

uint64_t scratch_file::size() const {
    struct stat status = {};
    EXPECT_EQ(fstat(fd_, &status), 0);
    return static_cast<uint64_t>(status.st_size);
}

std::vector<uint8_t> scratch_file::bytes(uint64_t offset, size_t len) const {
    return file_bytes(path_, offset, len);
}

void scratch_file::write_bytes(uint64_t offset, const void* bytes, size_t len) {
    EXPECT_EQ(pwrite(fd_, bytes, len, static_cast<off_t>(offset)), static_cast<ssize_t>(len));
}

std::vector<uint8_t> file_bytes(const std::string& path, uint64_t offset, size_t len) {
    std::vector<uint8_t> result(len, 0);
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GT(fd, 0) << path;
    EXPECT_GE(pread(fd, result.data(), len, static_cast<off_t>(offset)), 0) << path;
    close(fd);
    return result;
}

void write_file_bytes(const std::string& path, uint64_t offset, const void* bytes, size_t len) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_GT(fd, 0) << path;
    EXPECT_EQ(pwrite(fd, bytes, len, static_cast<off_t>(offset)), static_cast<ssize_t>(len));
    close(fd);
}

bool file_exists(const std::string& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0;
}
