#include "campaign/recording.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/stat.h>

namespace fs = std::filesystem;

std::vector<operation> read_recording(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string all{std::istreambuf_iterator<char>(file), {}};
    std::vector<operation> operations;
    size_t at = 0;
    op_head head = {};
    while (at + sizeof head <= all.size()) {
        memcpy(&head, all.data() + at, sizeof head);
        at += sizeof head;
        const size_t rest = size_t{head.path_length} + head.other_length + head.bytes_length;
        if (at + rest > all.size()) {
            break;
        }
        operation op = {head.kind, {head.device, head.inode}, head.number, "", "", {}};
        op.path = all.substr(at, head.path_length);
        op.other = all.substr(at + head.path_length, head.other_length);
        const char* bytes = all.data() + at + head.path_length + head.other_length;
        op.bytes.assign(bytes, bytes + head.bytes_length);
        operations.push_back(std::move(op));
        at += rest;
    }
    return operations;
}

std::map<file_id, std::string> identities_of(const std::string& root) {
    std::map<file_id, std::string> names;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
        struct stat status = {};
        if (stat(entry.path().c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
            names[{status.st_dev, status.st_ino}] = entry.path().lexically_relative(root);
        }
    }
    return names;
}
