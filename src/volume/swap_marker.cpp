#include "volume/swap_marker.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

#include "metadata.h"
#include "print.h"
#include "store/crc32c.h"
#include "store/file.h"
#include "store/log.h"
#include "volume/volume_paths.h"
#include "volume/work_dir.h"

static constexpr const char* FIRST_LINE = "tarn swap 1\n";
static constexpr const char* LAST_LINE = "end %08x\n";  // the CRC-32C of the lines before
static constexpr size_t LAST_LINE_SIZE = 16;
static constexpr unsigned MARKER_MODE = 0600;

static int form_file(swap_file* file, const char* root, const char* name) {
    const size_t size = SWAP_PATH_SIZE;
    const char* live = file->live_name;
    const char* rebuilt = file->rebuilt_name;
    const bool fit = form_path(file->live_name, SWAP_NAME_SIZE, "%s/%s", EP_DIR, name) == 0 &&
                     form_path(file->rebuilt_name, SWAP_NAME_SIZE, "%s/%s", FIX_DIR, name) == 0 &&
                     form_path(file->live, size, "%s/%s", root, live) == 0 &&
                     form_path(file->rebuilt, size, "%s/%s", root, rebuilt) == 0 &&
                     form_path(file->backup, size, "%s/%s.bkp", root, live) == 0 &&
                     form_path(file->next_backup, size, "%s/%s.bkp.new", root, live) == 0;
    return fit ? 0 : -1;
}

int table_swap_form(table_swap* swap, const char* root) {
    const size_t size = SWAP_PATH_SIZE;
    *swap = {};
    const bool fit = form_path(swap->live_dir, size, "%s/%s", root, EP_DIR) == 0 &&
                     form_path(swap->work_dir, size, "%s/%s", root, FIX_DIR) == 0 &&
                     form_path(swap->marker, size, "%s/%s/swap", root, FIX_DIR) == 0 &&
                     form_file(&swap->files[0], root, TABLE_NAME) == 0 &&
                     form_file(&swap->files[1], root, INDEX_NAME) == 0;
    return fit ? 0 : -1;
}

int swap_failed(const char* step, const char* path) {
    const int error = errno;
    log_err_as(SWAP_LOG_NAME, "Fail to %s %s: %s\n", step, path, strerror(error));
    return -1;
}

int swap_stat(const char* path, name_status* name) {
    *name = {};
    if (io_lstat(path, &name->status) == 0) {
        name->there = true;
        return 0;
    }
    const bool absent = errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG;
    return absent ? 0 : swap_failed("get the status of", path);
}

bool swap_same_file(const name_status* one, const name_status* other) {
    return one->there && other->there && one->status.st_dev == other->status.st_dev &&
           one->status.st_ino == other->status.st_ino;
}

// The size and the first node of the file at `path`, whatever its checksums say.
static bool read_mark(const char* path, uint64_t* size, metadata_head* head) {
    const int fd = io_open(path, O_RDONLY | O_NONBLOCK, 0);
    const scoped_fd file(fd > 0 ? fd : 0);
    const int64_t bytes = fd > 0 ? io_size(fd) : -1;
    if (bytes < 0 || !read_fd_run(fd, head, 0, sizeof *head)) {
        (void)swap_failed("read", path);
        return false;
    }
    *size = static_cast<uint64_t>(bytes);
    return true;
}

bool swap_describe(const char* name, const char* path, char* line) {
    name_status file;
    if (swap_stat(path, &file) != 0) {
        return false;
    }
    uint64_t size = 0;
    metadata_head head{};
    if (!file.there) {
        snprintf(line, SWAP_LINE_SIZE, "%s absent\n", name);
    } else if (!read_mark(path, &size, &head)) {
        snprintf(line, SWAP_LINE_SIZE, "%s unreadable\n", name);
    } else {
        snprintf(line, SWAP_LINE_SIZE, "%s %llu " UUID_PLAIN " %08x\n", name, ull(size),
                 UUID_ARGS(head.uuid), head.checksum);
    }
    return true;
}

bool swap_has_uuid(const char* line) {
    return strchr(line, ' ') != strrchr(line, ' ');
}

// Writes the marker's line with the time of the last write to the live file; "" without a file.
static void describe_time(const swap_file* file, const name_status* live, char* line) {
    line[0] = '\0';
    if (live->there) {
        const timespec& time = live->status.st_mtim;
        snprintf(line, SWAP_LINE_SIZE, "%s written %lld.%09ld\n", file->live_name,
                 static_cast<long long>(time.tv_sec), time.tv_nsec);
    }
}

bool swap_has_line(const table_swap* swap, const char* line) {
    const char* at = strstr(swap->text, line);
    return at != nullptr && at != swap->text && at[-1] == '\n';
}

static void form_last_line(const char* text, size_t length, char* line) {
    uint32_t checksum = 0;
    tarn_crc32c(text, static_cast<uint32_t>(length), &checksum);
    snprintf(line, LAST_LINE_SIZE, LAST_LINE, checksum);
}

static bool is_complete(const char* text) {
    const char* last = strstr(text, "\nend ");
    if (strncmp(text, FIRST_LINE, strlen(FIRST_LINE)) != 0 || last == nullptr) {
        return false;
    }
    last++;
    char wanted[LAST_LINE_SIZE];
    form_last_line(text, static_cast<size_t>(last - text), wanted);
    return strcmp(last, wanted) == 0;
}

bool swap_is_pending(const name_status* rebuilt, const name_status* live) {
    return rebuilt->there && !swap_same_file(rebuilt, live);
}

// `outdated` if neither file was swapped in and a live one was written since.
static swap_found marker_or_outdated(const table_swap* swap) {
    bool written = false;
    for (const swap_file& file : swap->files) {
        name_status rebuilt;
        name_status live;
        if (swap_stat(file.rebuilt, &rebuilt) != 0 || swap_stat(file.live, &live) != 0) {
            return swap_found::unknown;
        }
        if (!swap_is_pending(&rebuilt, &live)) {
            return swap_found::marker;
        }
        char line[SWAP_LINE_SIZE];
        describe_time(&file, &live, line);
        written = written || (live.there && !swap_has_line(swap, line));
    }
    return written ? swap_found::outdated : swap_found::marker;
}

swap_found table_swap_find(table_swap* swap) {
    name_status dir;
    if (swap_stat(swap->work_dir, &dir) != 0) {
        return swap_found::unknown;
    }
    if (!dir.there || !S_ISDIR(dir.status.st_mode)) {  // a link is not followed
        return swap_found::nothing;
    }
    const int fd = io_open(swap->marker, O_RDONLY | O_NOFOLLOW | O_NONBLOCK, 0);
    const scoped_fd file(fd > 0 ? fd : 0);
    if (fd <= 0 && errno == ENOENT) {
        return swap_found::nothing;
    }
    memset(swap->text, 0, sizeof swap->text);
    if (fd <= 0 || !read_fd_run(fd, swap->text, 0, sizeof swap->text - 1)) {
        (void)swap_failed("read", swap->marker);
        return swap_found::unknown;
    }
    return is_complete(swap->text) ? marker_or_outdated(swap) : swap_found::nothing;
}

static bool is_pair(const table_swap* swap) {
    int waiting = 0;
    for (const swap_file& file : swap->files) {
        name_status rebuilt;
        name_status live;
        if (swap_stat(file.rebuilt, &rebuilt) != 0 || swap_stat(file.live, &live) != 0 ||
            !live.there) {
            return false;
        }
        waiting += swap_is_pending(&rebuilt, &live) ? 1 : 0;
    }
    return waiting != 1;
}

int table_swap_expect_pair(const char* root) {
    table_swap swap;
    if (table_swap_form(&swap, root) != 0) {
        return -1;
    }
    const swap_found found = table_swap_find(&swap);
    if (found != swap_found::marker || is_pair(&swap)) {
        return found == swap_found::unknown ? -1 : 0;
    }
    log_err_as(SWAP_LOG_NAME,
               "%s: table and index do not match until --onekeyrepair is run again\n", root);
    return -1;
}

int table_swap_expect_none(const char* root) {
    table_swap swap;
    if (table_swap_form(&swap, root) != 0) {
        return -1;
    }
    const swap_found found = table_swap_find(&swap);
    if (found == swap_found::marker) {
        log_err_as(SWAP_LOG_NAME, "%s belongs to an interrupted repair: run --onekeyrepair again\n",
                   swap.work_dir);
    }
    return found == swap_found::marker || found == swap_found::unknown ? -1 : 0;
}

static void append(table_swap* swap, const char* line) {
    const size_t length = strlen(swap->text);
    snprintf(swap->text + length, sizeof swap->text - length, "%s", line);
}

static int form_text(table_swap* swap) {
    snprintf(swap->text, sizeof swap->text, "%s", FIRST_LINE);
    for (const swap_file& file : swap->files) {
        char line[SWAP_LINE_SIZE];
        name_status live;
        if (!swap_describe(file.live_name, file.live, line) || swap_stat(file.live, &live) != 0) {
            return -1;
        }
        append(swap, line);
        describe_time(&file, &live, line);
        append(swap, line);
        if (!swap_describe(file.rebuilt_name, file.rebuilt, line)) {
            return -1;
        }
        if (!swap_has_uuid(line)) {
            log_err_as(SWAP_LOG_NAME, "Fail to read the rebuilt %s\n", file.rebuilt);
            return -1;
        }
        append(swap, line);
    }
    char last[LAST_LINE_SIZE];
    form_last_line(swap->text, strlen(swap->text), last);
    append(swap, last);
    return 0;
}

int table_swap_begin(table_swap* swap) {
    if (form_text(swap) != 0) {
        return -1;
    }
    const int fd = io_open(swap->marker, O_WRONLY | O_CREAT | O_EXCL, MARKER_MODE);
    const scoped_fd file(fd > 0 ? fd : 0);
    const auto length = static_cast<uint32_t>(strlen(swap->text));
    if (fd <= 0 || write_fd(fd, swap->text, 0, length) != static_cast<int>(length) ||
        io_sync(fd) != 0) {
        return swap_failed("write", swap->marker);
    }
    return sync_directory(swap->work_dir);
}

int table_swap_forget(const table_swap* swap) {
    if (io_unlink(swap->marker) != 0) {
        return swap_failed("remove", swap->marker);
    }
    return sync_directory(swap->work_dir);
}
