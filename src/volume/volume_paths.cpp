#include "volume/volume_paths.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <sys/stat.h>

#include "options.h"
#include "platform.h"
#include "store/log.h"

static constexpr size_t VOLUME_DIR_SIZE = 64;      // a directory right below a volume's root
static constexpr size_t JOURNAL_ROOT_SIZE = 256;   // what the iSCSI configuration answers with
static constexpr size_t PARSED_PATH_SIZE = 128;    // a path whose volume is asked for
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

static bool is_directory(const char* path) {
    struct stat64 status = {};
    return stat64(path, &status) == 0 && S_ISDIR(status.st_mode);
}

int is_vaai_volume(const char* path) {
    constexpr const char* no_volume = "TARN_INFO: %s is not a VAAI volume\n";
    if (strstr(path, "/volume") == nullptr) {
        printf(no_volume, path);
        return 0;
    }
    for (const char* name : {"@EP", "@iSCSITrg"}) {
        char directory[VOLUME_DIR_SIZE];
        if (form_path(directory, sizeof directory, "%s/%s", path, name) != 0) {
            printf(no_volume, path);
            return 0;
        }
        if (!is_directory(directory)) {
            printf(no_volume, directory);
            return 0;
        }
    }
    return 1;
}

int is_regular_file(const char* path) {
    struct stat64 status = {};
    return stat64(path, &status) == 0 && S_ISREG(status.st_mode) ? 1 : 0;
}

int get_jnl_root_path() {
    char root[JOURNAL_ROOT_SIZE] = {};
    if (ORBAiSCSIConfJournalRootPathGet(root, sizeof root, 0) < 0) {
        return -1;
    }
    return form_path(opt_ctx.jnlpath, sizeof opt_ctx.jnlpath, "%s/EP_JNL", root);
}

int prepare_jnl_path() {
    if (opt_ctx.jnlpath[0] == '\0' && get_jnl_root_path() != 0) {
        return -1;
    }
    if (is_regular_file(opt_ctx.jnlpath) == 0) {
        printf("TARN_INFO: REPLAY jnlPath doesn't exist %s\n", opt_ctx.jnlpath);
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

void set_live_table_paths(const char* root) {
    // A root too long leaves the path empty, and the load of an empty path fails.
    (void)form_path(opt_ctx.fripath, sizeof opt_ctx.fripath, "%s/%s/EP_FRI", root, EP_DIR);
    (void)form_path(opt_ctx.tblpath, sizeof opt_ctx.tblpath, "%s/%s/EP_TBL", root, EP_DIR);
}
