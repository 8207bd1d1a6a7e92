// A temporary file and a temporary directory for one test, removed at its end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class scratch_dir {
public:
    scratch_dir();
    ~scratch_dir();  // removes everything below it
    scratch_dir(const scratch_dir&) = delete;
    scratch_dir& operator=(const scratch_dir&) = delete;
    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

class scratch_file {
public:
    explicit scratch_file(uint64_t size = 0);  // reads as zero
    ~scratch_file();
    scratch_file(const scratch_file&) = delete;
    scratch_file& operator=(const scratch_file&) = delete;
    [[nodiscard]] int fd() const { return fd_; }  // stays open; a loader opens another one
    [[nodiscard]] const char* path() const { return path_.c_str(); }
    [[nodiscard]] uint64_t size() const;
    [[nodiscard]] std::vector<uint8_t> bytes(uint64_t offset, size_t len) const;  // zero-filled
    void write_bytes(uint64_t offset, const void* bytes, size_t len);
    template <class Record>
    void write_at(uint64_t offset, const Record& record) {
        write_bytes(offset, &record, sizeof record);
    }
    template <class Record>
    [[nodiscard]] Record read_at(uint64_t offset) const {
        Record record{};
        const std::vector<uint8_t> got = bytes(offset, sizeof record);
        __builtin_memcpy(&record, got.data(), sizeof record);
        return record;
    }

private:
    scratch_dir dir_;
    std::string path_;
    int fd_;
};

// The same for any path. Short reads are filled with zero; a write creates the file.
std::vector<uint8_t> file_bytes(const std::string& path, uint64_t offset, size_t len);
void write_file_bytes(const std::string& path, uint64_t offset, const void* bytes, size_t len);
bool file_exists(const std::string& path);
