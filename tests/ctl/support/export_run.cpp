#include "ctl/support/export_run.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "support/scratch_file.h"
#include "system/support/shell.h"

namespace fs = std::filesystem;

check_run export_on(const std::string& sample, const std::string& words) {
    return run_limited("env TARN_PLATFORM_CONF=" + sample +
                       "/platform.conf " TARN_CTL_PROGRAM " export " + words);
}

static bool is_lun(const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    return (path.find("/@iSCSITrg/") != std::string::npos &&
            name.find("_Extent_") != std::string::npos) ||
           path.find("/@EP_trash/") != std::string::npos ||
           (path.find("/@Snapshot/") != std::string::npos && name.starts_with("FAMILY_"));
}

std::vector<std::string> luns_of(const std::string& sample) {
    std::vector<std::string> luns;
    for (const auto& entry : fs::recursive_directory_iterator(sample)) {
        const std::string path = entry.path().lexically_relative(sample);
        if (entry.is_regular_file() && is_lun("/" + path)) {
            luns.push_back(path);
        }
    }
    std::sort(luns.begin(), luns.end());
    return luns;
}

void write_model(const std::string& sample, const std::string& lun, const std::string& file) {
    fs::remove(file);
    const ran done = tarn_lab("image " + sample + " " + lun + " " + file);
    EXPECT_EQ(done.status, 0) << done.text;
}

std::vector<byte_span> spans_in(const std::string& mapfile, char status) {
    std::vector<byte_span> spans;
    std::ifstream file(mapfile);
    EXPECT_TRUE(file.good()) << mapfile;
    uint64_t at = 0;
    bool has_position = false;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("#")) {
            continue;
        }
        if (!has_position) {
            EXPECT_EQ(line, "0x00000000     +               1");
            has_position = true;
            continue;
        }
        std::istringstream words(line);
        byte_span span = {};
        char seen = 0;
        words >> std::hex >> span.begin >> span.bytes >> seen;
        EXPECT_TRUE(span.begin == at && (seen == '+' || seen == '-')) << line;
        at += span.bytes;
        if (seen == status) {
            spans.push_back(span);
        }
    }
    EXPECT_TRUE(has_position) << mapfile;
    return spans;
}

namespace {

class open_file {
public:
    explicit open_file(const std::string& path) : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        EXPECT_GE(fd_, 0) << path;
    }
    ~open_file() { (void)close(fd_); }
    open_file(const open_file&) = delete;
    open_file& operator=(const open_file&) = delete;
    [[nodiscard]] uint64_t size() const {
        struct stat status = {};
        return fstat(fd_, &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
    }
    [[nodiscard]] uint64_t next_data(uint64_t at) const {
        const off_t found = lseek(fd_, static_cast<off_t>(at), SEEK_DATA);
        return found < 0 ? size() : static_cast<uint64_t>(found);
    }
    [[nodiscard]] uint64_t next_hole(uint64_t at) const {
        const off_t found = lseek(fd_, static_cast<off_t>(at), SEEK_HOLE);
        return found < 0 ? size() : static_cast<uint64_t>(found);
    }
    void read(uint64_t at, std::vector<uint8_t>* bytes) const {
        std::fill(bytes->begin(), bytes->end(), uint8_t{0});
        EXPECT_GE(pread(fd_, bytes->data(), bytes->size(), static_cast<off_t>(at)), 0);
    }

private:
    int fd_;
};

void blank(std::vector<uint8_t>* bytes, uint64_t at, const std::vector<byte_span>& zero) {
    for (const byte_span& span : zero) {
        const uint64_t begin = std::max(at, span.begin);
        const uint64_t end = std::min(at + bytes->size(), span.begin + span.bytes);
        if (begin < end) {
            memset(bytes->data() + (begin - at), 0, end - begin);
        }
    }
}

}  // namespace

std::string difference(const std::string& one, const std::string& other,
                       const std::vector<byte_span>& zero) {
    const open_file a(one);
    const open_file b(other);
    if (a.size() != b.size()) {
        return std::to_string(a.size()) + " and " + std::to_string(b.size()) + " bytes";
    }
    constexpr size_t STEP = 4096;
    std::vector<uint8_t> first(STEP);
    std::vector<uint8_t> second(STEP);
    for (uint64_t at = std::min(a.next_data(0), b.next_data(0)); at < a.size();
         at = std::min(a.next_data(at), b.next_data(at))) {
        a.read(at, &first);
        b.read(at, &second);
        blank(&second, at, zero);
        if (first != second) {
            return "differ at byte " + std::to_string(at) + " or soon after";
        }
        at += STEP;
    }
    return "";
}

uint64_t bytes_on_disk(const std::string& file) {
    const open_file opened(file);
    uint64_t bytes = 0;
    for (uint64_t at = opened.next_data(0); at < opened.size(); at = opened.next_data(at)) {
        const uint64_t end = opened.next_hole(at);
        bytes += end - at;
        at = end;
    }
    return bytes;
}
