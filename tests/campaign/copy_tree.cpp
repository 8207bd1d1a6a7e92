#include "campaign/copy_tree.h"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

static void copy_run(int from, int to, off_t at, off_t end) {
    std::vector<char> buffer(65536);
    while (at < end) {
        const size_t most = std::min(buffer.size(), static_cast<size_t>(end - at));
        const ssize_t got = pread(from, buffer.data(), most, at);
        ASSERT_GT(got, 0);
        ASSERT_EQ(pwrite(to, buffer.data(), static_cast<size_t>(got), at), got);
        at += got;
    }
}

void copy_file_sparse(const std::string& from, const std::string& to) {
    const int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
    const int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    struct stat status = {};
    ASSERT_GE(in, 0) << from;
    ASSERT_GE(out, 0) << to;
    ASSERT_EQ(fstat(in, &status), 0);
    ASSERT_EQ(ftruncate(out, status.st_size), 0);
    ASSERT_EQ(fchmod(out, status.st_mode & 07777), 0);
    off_t data = 0;
    while ((data = lseek(in, data, SEEK_DATA)) >= 0) {
        const off_t hole = lseek(in, data, SEEK_HOLE);
        copy_run(in, out, data, hole);
        data = hole;
    }
    close(in);
    close(out);
}

void copy_tree(const std::string& from, const std::string& to) {
    std::map<std::pair<dev_t, ino_t>, std::string> seen;
    std::set<std::string> names;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(from)) {
        names.insert(entry.path().lexically_relative(from));
    }
    ASSERT_TRUE(fs::create_directory(to));
    for (const std::string& name : names) {
        const std::string source = from + "/" + name;
        const std::string target = to + "/" + name;
        struct stat status = {};
        ASSERT_EQ(lstat(source.c_str(), &status), 0);
        if (S_ISDIR(status.st_mode)) {
            ASSERT_EQ(mkdir(target.c_str(), status.st_mode & 07777), 0);
            continue;
        }
        const auto [first, is_new] = seen.insert({{status.st_dev, status.st_ino}, target});
        if (is_new) {
            copy_file_sparse(source, target);
        } else {
            ASSERT_EQ(link(first->second.c_str(), target.c_str()), 0);
        }
    }
}
