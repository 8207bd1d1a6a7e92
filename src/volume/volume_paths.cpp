#include "volume/volume_paths.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"

static constexpr size_t VOLUME_DIR_SIZE = 64;      // a directory right below a volume's root
static constexpr size_t JOURNAL_ROOT_SIZE = 256;   // journal root from the iSCSI configuration
static constexpr size_t PARSED_PATH_SIZE = 128;    // a path whose volume is looked up
static constexpr int ERROR_BAD_PARAMETERS = 3328;  // of the platform's error slot

int form_path(char* out, size_t size, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(out, size, format, arguments);
    va_end(arguments);
    if (length < 0 || static_cast<size_t>(length) >= size) {
        log_err("path does not fit into %zu bytes: %s...\n", size, out);
        out[0] = '\0';
        return -1;
    }
    return 0;
}

// A file of the volume itself, in EP_DIR. Logs nothing: the code that needs the file logs that it
// is missing.
static void form_path_unlogged(char* out, const char* root, const char* name) {
    const int length = snprintf(out, PATH_TEXT_SIZE, "%s/%s/%s", root, EP_DIR, name);
    if (length < 0 || static_cast<size_t>(length) >= PATH_TEXT_SIZE) {
        out[0] = '\0';
    }
}

static path_kind kind_of_status(int result, const struct stat64* status) {
    if (result != 0) {
        return errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG ? path_kind::absent
                                                                            : path_kind::unknown;
    }
    if (S_ISDIR(status->st_mode)) {
        return path_kind::directory;
    }
    return S_ISREG(status->st_mode) ? path_kind::file : path_kind::other;
}

path_kind kind_of_path(const char* caller, const char* path) {
    struct stat64 status = {};
    const path_kind kind = kind_of_status(io_stat(path, &status), &status);
    if (kind == path_kind::unknown) {
        const int error = errno;
        log_keep_as(caller, keep_reason::unread, "Fail to get the status of %s: %s\n", path,
                    strerror(error));
    }
    return kind;
}

static constexpr const char* VAAI_DIRECTORIES[] = {EP_DIR, LUN_DIR};

bool may_be_vaai_volume(const char* path) {
    if (strstr(path, "/volume") == nullptr) {
        return false;
    }
    for (const char* name : VAAI_DIRECTORIES) {
        char directory[VOLUME_DIR_SIZE];
        const int length = snprintf(directory, sizeof directory, "%s/%s", path, name);
        if (length < 0 || static_cast<size_t>(length) >= sizeof directory) {
            return false;  // never entered
        }
        struct stat64 status = {};
        const path_kind kind = kind_of_status(io_stat(directory, &status), &status);
        if (kind != path_kind::directory && kind != path_kind::unknown) {
            return false;
        }
    }
    return true;
}

int is_vaai_volume(const char* path) {
    constexpr const char* no_volume = "TARN_INFO: %s is not a VAAI volume\n";
    if (strstr(path, "/volume") == nullptr) {
        printf(no_volume, path);
        return 0;
    }
    for (const char* name : VAAI_DIRECTORIES) {
        char directory[VOLUME_DIR_SIZE];
        if (form_path(directory, sizeof directory, "%s/%s", path, name) != 0) {
            keep_journal(keep_reason::unread, "volume root %s is too long", path);
            printf(no_volume, path);
            return 0;
        }
        if (kind_of_path("is_directory", directory) != path_kind::directory) {
            printf(no_volume, directory);
            return 0;
        }
    }
    return 1;
}

int is_regular_file(const char* path) {
    return kind_of_path(__func__, path) == path_kind::file ? 1 : 0;
}

void set_volume_root(volume_paths* paths, const char* root) {
    snprintf(paths->root, sizeof paths->root, "%s", root);
    form_path_unlogged(paths->unmap_buffer, root, UNMAP_BUFFER_NAME);
    form_path_unlogged(paths->rod_map, root, ROD_MAP_NAME);
}

int set_table_paths(volume_paths* paths, const char* name) {
    const char* root = paths->root;
    const int index =
        form_path(paths->index, sizeof paths->index, "%s/%s/%s", root, name, INDEX_NAME);
    const int table =
        form_path(paths->table, sizeof paths->table, "%s/%s/%s", root, name, TABLE_NAME);
    return index == 0 && table == 0 ? 0 : -1;
}

void set_map_path(volume_paths* paths, const char* map) {
    snprintf(paths->map, sizeof paths->map, "%s", map);
}

int get_jnl_root_path(volume_paths* paths) {
    char root[JOURNAL_ROOT_SIZE] = {};
    if (ORBAiSCSIConfJournalRootPathGet(root, sizeof root, 0) < 0) {
        log_err("Fail to get the journal root\n");
        return -1;
    }
    return form_path(paths->journal, sizeof paths->journal, "%s/%s", root, JOURNAL_NAME);
}

int prepare_jnl_path(volume_paths* paths) {
    if (paths->journal[0] == '\0' && get_jnl_root_path(paths) != 0) {
        return -1;
    }
    if (is_regular_file(paths->journal) == 0) {
        printf("TARN_INFO: REPLAY jnlPath doesn't exist %s\n", paths->journal);
    }
    return 0;
}

int parse_volume_path(const char* path, char* out) {
    if (path == nullptr) {
        log_service(" Bad parameters");
        OLIBCErrSet(ERROR_BAD_PARAMETERS);
        return -1;
    }
    if (strlen(path) >= PARSED_PATH_SIZE) {
        return -1;
    }
    const int number = ORBAVolIDParse(path);
    if (number <= 0) {
        return -1;
    }
    return snprintf(out, PATH_TEXT_SIZE, "/volume%d", number);
}
