#include "ctl/own_place.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include "ctl/text/escape.h"
#include "store/descriptor.h"

bool find_place(const std::string& path, std::string* place) {
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    char real[PATH_MAX];
    if (name.empty() || name == "." || name == "..") {
        errno = EISDIR;
        return false;
    }
    if (io_real_path(directory.c_str(), real) == nullptr) {
        return false;
    }
    *place = std::string(strcmp(real, "/") == 0 ? "" : real) + "/" + name;
    return true;
}

static bool is_below(const std::string& path, const std::string& root) {
    return root == "/" || path == root || path.starts_with(root + "/");
}

static std::string real_path_of(const std::string& path) {
    char real[PATH_MAX];
    return io_real_path(path.c_str(), real) == nullptr ? path : real;
}

std::string problem_of_place(const std::string& place, const server_files& server) {
    for (const volume_files& volume : server.volumes) {
        if (volume.state != volume_state::plain && is_below(place, real_path_of(volume.root))) {
            return "it would lie in the volume " + shown(volume.root);
        }
    }
    struct stat64 status = {};
    if (io_lstat(place.c_str(), &status) != 0 && errno != ENOENT) {
        return std::string("its status cannot be read: ") + strerror(errno);
    }
    if (status.st_mode != 0 && !S_ISREG(status.st_mode)) {
        return "something is there that is no regular file";
    }
    const bool is_journal =
        !server.journal.empty() && (io_same_file(place.c_str(), server.journal.c_str()) != 0 ||
                                    place == real_path_of(server.journal));
    return is_journal ? "it is the journal" : "";
}
