#include "lab/disk.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

#include "lab/bytes.h"
#include "lab/settings.h"

namespace lab {

// The tool stores a volume's directories in 64 bytes and a map's path in 128.
constexpr size_t LONGEST_ROOT = 63 - sizeof "/volume64/@iSCSITrg" + 1;

bool complain_of(const std::string& path, const char* what) {
    (void)fprintf(stderr, "tarn-lab: %s: %s\n", path.c_str(), what);
    return false;
}

bool complain_of_errno(const std::string& path) {
    return complain_of(path, strerror(errno));
}

static bool is_empty_directory(const std::string& path) {
    DIR* directory = opendir(path.c_str());
    if (directory == nullptr) {
        return complain_of_errno(path);
    }
    bool empty = true;
    for (const dirent* entry = readdir(directory); entry != nullptr; entry = readdir(directory)) {
        empty = empty && (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0);
    }
    (void)closedir(directory);
    return empty || complain_of(path, "is not empty");
}

std::string prepare_directory(const std::string& directory) {
    if (mkdir(directory.c_str(), 0777) != 0 && errno != EEXIST) {
        (void)complain_of_errno(directory);
        return "";
    }
    char absolute[PATH_MAX];
    if (realpath(directory.c_str(), absolute) == nullptr) {
        (void)complain_of_errno(directory);
        return "";
    }
    const std::string root = absolute;
    if (root.size() > LONGEST_ROOT) {
        (void)complain_of(root, "path too long: the volumes' directories would not fit below it");
        return "";
    }
    if (root.find_first_of(" \t\n") != std::string::npos) {
        (void)complain_of(root, "contains a blank: platform.conf cannot name volumes below it");
        return "";
    }
    return is_empty_directory(root) ? root : "";
}

static bool make_directory(const std::string& path) {
    return mkdir(path.c_str(), 0777) == 0 || errno == EEXIST || complain_of_errno(path);
}

static bool make_parents(const std::string& directory, const std::string& path) {
    for (size_t slash = path.find('/'); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        if (!make_directory(directory + "/" + path.substr(0, slash))) {
            return false;
        }
    }
    return true;
}

// Writes runs of nonzero blocks; the others stay holes.
static bool write_chunk(int fd, const chunk& part) {
    const auto length_at = [&part](size_t at) {
        return std::min<size_t>(DATA_NODE_SIZE, part.bytes.size() - at);
    };
    size_t at = 0;
    while (at < part.bytes.size()) {
        if (is_zero(&part.bytes[at], length_at(at))) {
            at += length_at(at);
            continue;
        }
        const size_t start = at;
        while (at < part.bytes.size() && !is_zero(&part.bytes[at], length_at(at))) {
            at += length_at(at);
        }
        if (!write_all(fd, &part.bytes[start], at - start, part.offset + start)) {
            return false;
        }
    }
    return true;
}

static bool write_to(const std::string& path, const file_image& image, int flags) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC | flags, 0666);
    if (fd < 0) {
        return complain_of_errno(path);
    }
    bool good = ftruncate(fd, static_cast<off_t>(image.size)) == 0;
    for (const chunk& part : image.chunks) {
        good = good && write_chunk(fd, part);
    }
    if (!good) {
        (void)complain_of_errno(path);
    }
    return close(fd) == 0 && good;
}

static bool write_image(const std::string& directory, const file_image& image, int flags) {
    return write_to(directory + "/" + image.path, image, flags);
}

bool create_elsewhere(const file_image& image) {
    return write_to(image.path, image, O_CREAT | O_EXCL);
}

bool replace_file(const std::string& directory, const file_image& image) {
    return write_image(directory, image, O_TRUNC);
}

static bool write_text(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    file << text;
    file.close();
    return file.good() || complain_of(path, "cannot be written");
}

// A new file is written outside the volumes under this name, so that no half of it is ever seen.
constexpr const char* NEW_FILE = "lab.new";

static bool give_name(const std::string& directory, const std::string& path) {
    const std::string from = directory + "/" + NEW_FILE;
    const std::string to = directory + "/" + path;
    return renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0 ||
           complain_of_errno(to);
}

bool create_file(const std::string& directory, const file_image& image) {
    const file_image unnamed = {NEW_FILE, image.size, image.chunks};
    if (!make_parents(directory, image.path) ||
        !write_image(directory, unnamed, O_CREAT | O_TRUNC)) {
        return false;
    }
    return give_name(directory, image.path);
}

bool create_text(const std::string& directory, const std::string& path, const std::string& text) {
    return write_text(directory + "/" + NEW_FILE, text) && give_name(directory, path);
}

static bool write_configuration(const model& m, const std::string& directory) {
    std::string platform = "# A sample's platform: tarn reads it through TARN_PLATFORM_CONF.\n";
    platform += "journal_root = " + directory + "/journal\nvolumes =";
    for (const volume& vol : m.volumes) {
        platform += " " + directory + "/" + vol.root;
    }
    platform += "\n";
    std::string lab =
        "# The parameters of this sample; tarn-lab computes its expected contents from them.\n";
    for (const parameter_row& row : PARAMETER_ROWS) {
        lab += std::string(row.name) + " = " + std::to_string(m.sample.*row.value) + "\n";
    }
    for (const flag_row& row : FLAG_ROWS) {
        lab += std::string(row.name) + " = " + (m.sample.*row.value ? "1" : "0") + "\n";
    }
    return write_text(directory + "/platform.conf", platform) &&
           write_text(directory + "/lab.conf", lab);
}

bool write_sample(const model& m, const std::string& directory, progress* bar) {
    for (const volume& vol : m.volumes) {
        for (const char* below : {"", "/@EP", "/@iSCSITrg", "/@EP_trash", "/@Snapshot"}) {
            if (!make_directory(directory + "/" + vol.root + below)) {
                return false;
            }
        }
    }
    const std::vector<file_ref> files = list_files(m);
    progress_start(bar, "files", files.size());
    for (const file_ref& file : files) {
        const file_image image = image_of(m, file);
        if (!make_parents(directory, image.path) ||
            !write_image(directory, image, O_CREAT | O_EXCL)) {
            return false;
        }
        progress_step(bar);
    }
    progress_end(bar);
    return write_configuration(m, directory);
}

bool read_parameters(const std::string& directory, parameters* out) {
    const std::string path = directory + "/lab.conf";
    std::vector<setting> lines;
    if (!read_settings(path, &lines)) {
        return complain_of(path, "cannot be read: there is no sample here");
    }
    for (const parameter_row& row : PARAMETER_ROWS) {
        const std::string* value = find_setting(lines, row.name);
        if (value == nullptr || !parse_parameter(row, *value, out)) {
            return complain_of(path, (std::string("has no value for ") + row.name).c_str());
        }
    }
    for (const flag_row& row : FLAG_ROWS) {
        const std::string* value = find_setting(lines, row.name);
        if (value == nullptr || (*value != "0" && *value != "1")) {
            return complain_of(path, (std::string("has no value for ") + row.name).c_str());
        }
        out->*row.value = *value == "1";
    }
    return true;
}

}  // namespace lab
