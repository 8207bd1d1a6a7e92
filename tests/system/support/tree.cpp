#include "system/support/tree.h"

#include <algorithm>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

static constexpr size_t BLOCK = 512;

// The run of blocks that are not zero at the moment; empty: none.
struct data_run {
    uint64_t begin;   // byte in the file
    uint64_t length;  // bytes
    uint64_t hash;
};

static uint64_t hash_more(uint64_t hash, const uint8_t* bytes, size_t len) {  // FNV-1a
    for (size_t i = 0; i < len; i++) {
        hash = (hash ^ bytes[i]) * 0x100000001B3;
    }
    return hash;
}

static void end_run(data_run* run, std::string* text) {
    if (run->length > 0) {
        *text += "; " + std::to_string(run->begin) + "+" + std::to_string(run->length) + " " +
                 std::to_string(run->hash);
    }
    *run = {0, 0, 0xCBF29CE484222325};
}

static void take_block(uint64_t at, const uint8_t* bytes, size_t len, data_run* run,
                       std::string* text) {
    const bool empty = std::all_of(bytes, bytes + len, [](uint8_t byte) { return byte == 0; });
    if (empty || run->begin + run->length != at) {
        end_run(run, text);
        run->begin = at;
    }
    if (!empty) {
        run->hash = hash_more(run->hash, bytes, len);
        run->length += len;
    }
}

static std::string file_line(const fs::path& path) {
    std::string text = "file of " + std::to_string(fs::file_size(path));
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0) << path;
    std::vector<uint8_t> buffer(128 * BLOCK);
    data_run run = {};
    end_run(&run, &text);
    off_t at = 0;
    while ((at = lseek(fd, at, SEEK_DATA)) >= 0) {
        const off_t hole = lseek(fd, at, SEEK_HOLE);
        at -= at % static_cast<off_t>(BLOCK);
        const size_t most = std::min(buffer.size(), static_cast<size_t>(hole - at));
        const ssize_t got = pread(fd, buffer.data(), most, at);
        EXPECT_GT(got, 0) << path;
        const size_t len = got > 0 ? static_cast<size_t>(got) : 0;
        for (size_t i = 0; i < len; i += BLOCK) {
            take_block(static_cast<uint64_t>(at) + i, buffer.data() + i, std::min(BLOCK, len - i),
                       &run, &text);
        }
        if (len == 0) {
            break;
        }
        at += got;
    }
    end_run(&run, &text);
    close(fd);
    return text;
}

std::map<std::string, std::string> tree_of(const std::string& root) {
    std::map<std::string, std::string> lines;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
        const std::string name = entry.path().lexically_relative(root);
        if (entry.is_symlink()) {
            lines[name] = "link to " + fs::read_symlink(entry.path()).string();
        } else if (entry.is_directory()) {
            lines[name] = "directory";
        } else {
            lines[name] = file_line(entry.path());
        }
    }
    return lines;
}
