#include "view/server_files.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>

#include "metadata.h"
#include "platform.h"
#include "store/descriptor.h"

static constexpr size_t CUT_LENGTH = 127;  // of a map's path in the main tool's lists
static constexpr int DEPTH_MAX = 32;       // directories below each other; each holds a descriptor
static constexpr const char* DATA_FILE_PREFIX = "EP_DAT_";

// The state of a name; a link is followed as long as it stays below `root`.
static view_state state_of(const std::string& path, const std::string& root, int* error) {
    struct stat64 status = {};
    *error = 0;
    if (io_lstat(path.c_str(), &status) != 0) {
        *error = errno;
        return *error == ENOENT || *error == ENOTDIR ? view_state::absent : view_state::unreadable;
    }
    if (S_ISLNK(status.st_mode)) {
        char real[PATH_MAX];
        char real_root[PATH_MAX];
        if (io_real_path(path.c_str(), real) == nullptr ||
            io_real_path(root.c_str(), real_root) == nullptr ||
            io_stat(path.c_str(), &status) != 0) {
            *error = errno;
            return view_state::unreadable;
        }
        if (!std::string(real).starts_with(std::string(real_root) + "/")) {
            *error = EXDEV;
            return view_state::unreadable;
        }
    }
    return S_ISREG(status.st_mode) ? view_state::file : view_state::other;
}

static bool is_directory(const std::string& path) {
    struct stat64 status = {};
    return io_stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// The names in a directory, sorted. False, errno set: it cannot be read to its end.
static bool read_names(const std::string& path, std::vector<std::string>* names) {
    DIR* directory = io_open_directory(path.c_str());
    if (directory == nullptr) {
        return false;
    }
    const char* name = nullptr;
    int result = 0;
    while ((result = io_next_entry(directory, &name)) == 0 && name != nullptr) {
        if (strcmp(name, ".") != 0 && strcmp(name, "..") != 0) {
            names->emplace_back(name);
        }
    }
    const int error = errno;
    closedir(directory);
    std::sort(names->begin(), names->end());
    errno = error;
    return result == 0;
}

// Whether the file begins as a map does. A file that cannot be read does not: if a listing finds
// it, it is reported there.
static bool has_map_header(const std::string& path) {
    const int fd = io_open(path.c_str(), O_RDONLY | O_NONBLOCK, 0);
    if (fd <= 0) {
        return false;
    }
    metadata_head head = {};
    const ssize_t got = io_read_at(fd, &head, sizeof head, 0);
    io_close(fd);
    return got == static_cast<ssize_t>(sizeof head) && head.magic_code == METADATA_MAGIC_CODE &&
           head.file_type == FILE_TYPE_MAP;
}

static void add_map(volume_files* volume, const std::string& path, map_place place,
                    map_kind_code kind) {
    volume->maps.push_back({path, path.substr(volume->root.size() + 1), "", place, kind});
    if (path.size() > CUT_LENGTH) {
        volume->cut_paths.push_back(path);
    }
}

// A directory of maps.
struct map_walk {
    volume_files* volume;
    const lun_search* search;
    map_place place;
};

static void walk_maps(const map_walk& walk, const std::string& directory, int depth);

static void look_at(const map_walk& walk, const std::string& path, const std::string& name,
                    int depth) {
    struct stat64 status = {};
    int error = 0;
    if (io_lstat(path.c_str(), &status) != 0) {
        if (errno != ENOENT) {
            walk.volume->gaps.push_back({path, errno});
        }
        return;
    }
    const bool kept = walk.search->keep(name.c_str());
    const bool is_named = kept && walk.search->keep != is_any_name;  // as only maps are
    if (S_ISDIR(status.st_mode)) {
        if (is_named) {
            walk.volume->gaps.push_back({path, EISDIR});
        }
        walk_maps(walk, path, depth + 1);
        return;
    }
    if (S_ISREG(status.st_mode) && !kept) {
        if (has_map_header(path)) {
            walk.volume->stranger_maps.push_back(path);
        }
        return;
    }
    if (!kept) {
        return;
    }
    if (walk.search->files_only && !S_ISREG(status.st_mode)) {
        if (is_named) {  // something else lies in a map's place
            walk.volume->gaps.push_back({path, EINVAL});
        }
        return;
    }
    if (state_of(path, walk.volume->root, &error) == view_state::file) {
        add_map(walk.volume, path, walk.place, MAP_KIND_LUN);
    } else {
        walk.volume->gaps.push_back({path, error != 0 ? error : EINVAL});
    }
}

static void walk_maps(const map_walk& walk, const std::string& directory, int depth) {
    std::vector<std::string> names;
    if (depth > DEPTH_MAX) {
        walk.volume->gaps.push_back({directory, ENAMETOOLONG});
        return;
    }
    if (!read_names(directory, &names) && (depth > 0 || errno != ENOENT)) {
        walk.volume->gaps.push_back({directory, errno});
    }
    for (const std::string& name : names) {
        look_at(walk, directory + "/" + name, name, depth);
    }
}

// EP_BUF or EP_ROD.
static void look_for_own_map(volume_files* volume, const char* name, map_place place,
                             map_kind_code kind) {
    const std::string path = volume->root + "/" + EP_DIR + "/" + name;
    int error = 0;
    const view_state state = state_of(path, volume->root, &error);
    if (state == view_state::file) {
        add_map(volume, path, place, kind);
    } else if (state != view_state::absent) {
        volume->gaps.push_back({path, error != 0 ? error : EINVAL});
    }
}

// The number in the name of a data file: five digits or more, as they are written.
static bool data_file_number(const std::string& name, uint64_t* number) {
    if (!name.starts_with(DATA_FILE_PREFIX)) {
        return false;
    }
    const std::string digits = name.substr(strlen(DATA_FILE_PREFIX));
    if (digits.size() < 5 || digits.size() > 9 ||
        digits.find_first_not_of("0123456789") != std::string::npos ||
        (digits.size() > 5 && digits[0] == '0')) {
        return false;
    }
    *number = std::stoull(digits);
    return true;
}

static void add_data_file(volume_files* volume, const std::string& path, uint64_t number) {
    struct stat64 status = {};
    int error = 0;
    const view_state state = state_of(path, volume->root, &error);
    if (state == view_state::file && io_stat(path.c_str(), &status) == 0) {
        volume->data_files.push_back({number, path, static_cast<uint64_t>(status.st_size)});
    } else {
        volume->gaps.push_back({path, error != 0 ? error : EINVAL});
    }
}

static bool is_known_name(const std::string& name) {
    return name == TABLE_NAME || name == INDEX_NAME || name == UNMAP_BUFFER_NAME ||
           name == ROD_MAP_NAME || name.ends_with(".bkp");
}

// The volume's own directory: data files, and maps that nobody would look for here.
static void look_at_metadata_directory(volume_files* volume) {
    const std::string directory = volume->root + "/" + EP_DIR;
    std::vector<std::string> names;
    if (!read_names(directory, &names) && errno != ENOENT) {
        volume->gaps.push_back({directory, errno});
    }
    for (const std::string& name : names) {
        const std::string path = directory + "/" + name;
        uint64_t number = 0;
        if (data_file_number(name, &number)) {
            add_data_file(volume, path, number);
        } else if (!is_known_name(name) && has_map_header(path)) {
            volume->stranger_maps.push_back(path);
        }
    }
    std::sort(volume->data_files.begin(), volume->data_files.end(),
              [](const auto& one, const auto& other) { return one.number < other.number; });
}

static void look_at_table(volume_files* volume, const std::string& path, view_state* state) {
    int error = 0;
    *state = state_of(path, volume->root, &error);
    if (*state == view_state::unreadable || *state == view_state::other) {
        volume->gaps.push_back({path, error != 0 ? error : EINVAL});
    }
}

static constexpr map_place PLACES[] = {map_place::lun, map_place::trash, map_place::snapshot};
static_assert(sizeof PLACES / sizeof PLACES[0] == LUN_SEARCH_COUNT);

// The directory below the place's, or, for a file that is directly in it, the beginning of its
// name.
static std::string lun_name(const std::string& below) {
    const size_t first = below.find('/') + 1;
    const size_t slash = below.find('/', first);
    return slash != std::string::npos ? below.substr(first, slash - first)
                                      : below.substr(first, below.find("_Extent_", first) - first);
}

static void name_maps(volume_files* volume) {
    std::map<std::string, int> extents;
    for (const view_map& map : volume->maps) {
        extents[map.place == map_place::lun ? lun_name(map.below) : ""]++;
    }
    for (view_map& map : volume->maps) {
        const std::string last = map.below.substr(map.below.rfind('/') + 1);
        const std::string inside = map.below.substr(map.below.find('/') + 1);
        switch (map.place) {
            case map_place::lun:
                map.name = lun_name(map.below);
                if (extents[map.name] > 1) {
                    map.name += "/" + last.substr(std::min(last.find("Extent_"), last.size()));
                }
                break;
            case map_place::trash:
                map.name = "trash " + inside;
                break;
            case map_place::snapshot:
                map.name = "snapshot " + last + " (" + inside + ")";
                break;
            case map_place::unmap_buffer:
                map.name = "unmap buffer";
                break;
            case map_place::copy_map:
                map.name = "copy map";
                break;
        }
    }
}

static void list_volume(volume_files* volume) {
    for (size_t i = 0; i < LUN_SEARCH_COUNT; i++) {
        const map_walk walk = {volume, &lun_searches[i], PLACES[i]};
        walk_maps(walk, volume->root + "/" + lun_searches[i].directory, 0);
    }
    look_for_own_map(volume, UNMAP_BUFFER_NAME, map_place::unmap_buffer, MAP_KIND_UNMAP_BUFFER);
    look_for_own_map(volume, ROD_MAP_NAME, map_place::copy_map, MAP_KIND_ROD);
    name_maps(volume);
    look_at_table(volume, volume->table, &volume->table_state);
    look_at_table(volume, volume->index, &volume->index_state);
    look_at_metadata_directory(volume);
    for (const char* name : {CHECK_DIR, FIX_DIR}) {
        if (is_directory(volume->root + "/" + name)) {
            volume->work_directories.emplace_back(name);
        }
    }
}

static volume_files look_at_volume(const char* root) {
    volume_files volume;
    volume.root = root;
    volume.table = volume.root + "/" + EP_DIR + "/" + TABLE_NAME;
    volume.index = volume.root + "/" + EP_DIR + "/" + INDEX_NAME;
    std::vector<std::string> names;
    if (!is_directory(volume.root)) {
        volume.state = volume_state::missing;
        return volume;
    }
    if (!read_names(volume.root, &names)) {
        volume.gaps.push_back({volume.root, errno});
    }
    ORBAMountVolInfo mount = {};
    volume.writable = ORBAMountVolInfoGet(root, &mount) < 0 || mount.writable != 0;
    if (is_directory(volume.root + "/" + EP_DIR) || is_directory(volume.root + "/" + LUN_DIR)) {
        volume.state = volume_state::sound;
        list_volume(&volume);
    } else if (names.empty() && volume.gaps.empty()) {
        volume.state = volume_state::empty;
    }
    return volume;
}

static void find_journal(server_files* server) {
    char root[PATH_TEXT_SIZE] = {};
    if (ORBAiSCSIConfJournalRootPathGet(root, sizeof root, 0) < 0) {
        return;
    }
    struct stat64 status = {};
    server->journal = std::string(root) + "/" + JOURNAL_NAME;
    if (io_stat(server->journal.c_str(), &status) == 0) {
        server->journal_state = S_ISREG(status.st_mode) ? view_state::file : view_state::other;
    } else if ((errno != ENOENT && errno != ENOTDIR) ||
               io_lstat(server->journal.c_str(), &status) == 0) {
        server->journal_state = view_state::unreadable;  // or a link to nothing
    } else if (io_stat(root, &status) != 0 || !S_ISDIR(status.st_mode)) {
        server->lost_journal_root = root;
    }
}

// Without the slashes at its end.
static std::string plain_root(std::string root) {
    while (root.size() > 1 && root.back() == '/') {
        root.pop_back();
    }
    return root;
}

bool list_server(server_files* server, std::string* problem) {
    ORBASpaceInfo* spaces = nullptr;
    if (ORBASpaceInfoEnum(1, &spaces) < 0) {
        ORBASpaceInfoFree(spaces);
        *problem = "the volumes of this server are unknown: its configuration cannot be read";
        return false;
    }
    for (const ORBASpaceInfo* space = spaces; space != nullptr; space = space->next) {
        server->volumes.push_back(look_at_volume(plain_root(space->mount_path).c_str()));
    }
    ORBASpaceInfoFree(spaces);
    find_journal(server);
    return true;
}

bool choose_volumes(const std::vector<std::string>& roots, server_files* server,
                    std::string* problem) {
    for (volume_files& volume : server->volumes) {
        volume.chosen = roots.empty();
    }
    for (const std::string& root : roots) {
        const auto found = std::find_if(
            server->volumes.begin(), server->volumes.end(),
            [&](const volume_files& volume) { return volume.root == plain_root(root); });
        if (found == server->volumes.end()) {
            *problem = root + " is not one of this server's volumes";
            return false;
        }
        found->chosen = true;
    }
    return true;
}
