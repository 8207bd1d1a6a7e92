#include "volume/table_swap.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

#include "metadata.h"
#include "print.h"
#include "store/crc32c.h"
#include "store/descriptor.h"
#include "store/file.h"
#include "store/log.h"
#include "volume/volume_paths.h"
#include "volume/work_dir.h"

static constexpr const char* REPAIR = "one_key_repair";  // names the log lines
static constexpr const char* FIRST_LINE = "tarn swap 1\n";
static constexpr const char* LAST_LINE = "end %08x\n";  // the CRC-32C of the lines before
static constexpr size_t LAST_LINE_SIZE = 16;
static constexpr size_t FILE_LINE_SIZE = 96;
static constexpr unsigned MARKER_MODE = 0600;

static int form_file(swap_file* file, const char* root, const char* live, const char* rebuilt) {
    const size_t size = SWAP_PATH_SIZE;
    file->live_name = live;
    file->rebuilt_name = rebuilt;
    const bool fit = form_path(file->live, size, "%s/%s", root, live) == 0 &&
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
                     form_file(&swap->files[0], root, "@EP/EP_TBL", "@EP_FIX/EP_TBL") == 0 &&
                     form_file(&swap->files[1], root, "@EP/EP_FRI", "@EP_FIX/EP_FRI") == 0;
    return fit ? 0 : -1;
}

static int failed(const char* step, const char* path) {
    const int error = errno;
    log_err_as(REPAIR, "Fail to %s %s: %s\n", step, path, strerror(error));
    return -1;
}

// What a name stands for, a link as itself.
struct name_status {
    bool there;
    struct stat64 status;
};

static int look_at(const char* path, name_status* name) {
    *name = {};
    if (io_lstat(path, &name->status) == 0) {
        name->there = true;
        return 0;
    }
    const bool absent = errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG;
    return absent ? 0 : failed("get the status of", path);
}

static bool are_one(const name_status* one, const name_status* other) {
    return one->there && other->there && one->status.st_dev == other->status.st_dev &&
           one->status.st_ino == other->status.st_ino;
}

// The size and the first node of the file at `path`, whatever its checksums say.
static bool read_mark(const char* path, uint64_t* size, metadata_head* head) {
    const int fd = io_open(path, O_RDONLY | O_NONBLOCK, 0);
    const scoped_fd file(fd > 0 ? fd : 0);
    const int64_t bytes = fd > 0 ? io_size(fd) : -1;
    if (bytes < 0 || !read_fd_run(fd, head, 0, sizeof *head)) {
        (void)failed("read", path);
        return false;
    }
    *size = static_cast<uint64_t>(bytes);
    return true;
}

// Writes the marker's line of the file at `path` as `name`. A file that is there and cannot be
// read has a line too: it is what a repair is run for. False: its status is unknown, logged.
static bool describe(const char* name, const char* path, char* line) {
    name_status file;
    if (look_at(path, &file) != 0) {
        return false;
    }
    uint64_t size = 0;
    metadata_head head{};
    if (!file.there) {
        snprintf(line, FILE_LINE_SIZE, "%s absent\n", name);
    } else if (!read_mark(path, &size, &head)) {
        snprintf(line, FILE_LINE_SIZE, "%s unreadable\n", name);
    } else {
        snprintf(line, FILE_LINE_SIZE, "%s %llu " UUID_PLAIN " %08x\n", name, ull(size),
                 UUID_ARGS(head.uuid), head.checksum);
    }
    return true;
}

// A file that is absent or unreadable has none.
static bool has_uuid(const char* line) {
    return strchr(line, ' ') != strrchr(line, ' ');
}

// The marker's line that says when the live file was written last; "" when there is none.
static void describe_time(const swap_file* file, const name_status* live, char* line) {
    line[0] = '\0';
    if (live->there) {
        const timespec& time = live->status.st_mtim;
        snprintf(line, FILE_LINE_SIZE, "%s written %lld.%09ld\n", file->live_name,
                 static_cast<long long>(time.tv_sec), time.tv_nsec);
    }
}

static bool has_line(const table_swap* swap, const char* line) {
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

static bool waits(const name_status* rebuilt, const name_status* live) {
    return rebuilt->there && !are_one(rebuilt, live);
}

// Whether neither file was swapped in and somebody has written to a live one since.
static swap_found marker_or_outdated(const table_swap* swap) {
    bool written = false;
    for (const swap_file& file : swap->files) {
        name_status rebuilt;
        name_status live;
        if (look_at(file.rebuilt, &rebuilt) != 0 || look_at(file.live, &live) != 0) {
            return swap_found::unknown;
        }
        if (!waits(&rebuilt, &live)) {
            return swap_found::marker;
        }
        char line[FILE_LINE_SIZE];
        describe_time(&file, &live, line);
        written = written || (live.there && !has_line(swap, line));
    }
    return written ? swap_found::outdated : swap_found::marker;
}

swap_found table_swap_find(table_swap* swap) {
    name_status dir;
    if (look_at(swap->work_dir, &dir) != 0) {
        return swap_found::unknown;
    }
    if (!dir.there || !S_ISDIR(dir.status.st_mode)) {  // a link is never entered
        return swap_found::nothing;
    }
    const int fd = io_open(swap->marker, O_RDONLY | O_NOFOLLOW | O_NONBLOCK, 0);
    const scoped_fd file(fd > 0 ? fd : 0);
    if (fd <= 0 && errno == ENOENT) {
        return swap_found::nothing;
    }
    memset(swap->text, 0, sizeof swap->text);
    if (fd <= 0 || !read_fd_run(fd, swap->text, 0, sizeof swap->text - 1)) {
        (void)failed("read", swap->marker);
        return swap_found::unknown;
    }
    return is_complete(swap->text) ? marker_or_outdated(swap) : swap_found::nothing;
}

static bool is_pair(const table_swap* swap) {
    int waiting = 0;
    for (const swap_file& file : swap->files) {
        name_status rebuilt;
        name_status live;
        if (look_at(file.rebuilt, &rebuilt) != 0 || look_at(file.live, &live) != 0 || !live.there) {
            return false;
        }
        waiting += waits(&rebuilt, &live) ? 1 : 0;
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
    log_err_as(REPAIR, "%s: table and index are of two ages until --onekeyrepair is run again\n",
               root);
    return -1;
}

int table_swap_expect_none(const char* root) {
    table_swap swap;
    if (table_swap_form(&swap, root) != 0) {
        return -1;
    }
    const swap_found found = table_swap_find(&swap);
    if (found == swap_found::marker) {
        log_err_as(REPAIR, "%s belongs to a repair that was cut: run --onekeyrepair again\n",
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
        char line[FILE_LINE_SIZE];
        name_status live;
        if (!describe(file.live_name, file.live, line) || look_at(file.live, &live) != 0) {
            return -1;
        }
        append(swap, line);
        describe_time(&file, &live, line);
        append(swap, line);
        if (!describe(file.rebuilt_name, file.rebuilt, line)) {
            return -1;
        }
        if (!has_uuid(line)) {
            log_err_as(REPAIR, "Fail to read the rebuilt %s\n", file.rebuilt);
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
        return failed("write", swap->marker);
    }
    return sync_directory(swap->work_dir);
}

enum class rebuilt_place { waiting, swapped_in, unknown };

// Where the rebuilt file is. It is known by size, uuid and checksum; once its name in the work
// directory is gone, the live file has to be it.
static rebuilt_place find_rebuilt(const table_swap* swap, const swap_file* file) {
    name_status rebuilt;
    name_status live;
    if (look_at(file->rebuilt, &rebuilt) != 0 || look_at(file->live, &live) != 0) {
        return rebuilt_place::unknown;
    }
    const char* path = rebuilt.there ? file->rebuilt : file->live;
    const name_status* found = rebuilt.there ? &rebuilt : &live;
    char line[FILE_LINE_SIZE] = "";
    if (S_ISREG(found->status.st_mode) && !describe(file->rebuilt_name, path, line)) {
        return rebuilt_place::unknown;
    }
    if (!has_uuid(line) || !has_line(swap, line)) {
        log_err_as(REPAIR, "%s is not the rebuilt file that %s names and stays as it is\n", path,
                   swap->marker);
        return rebuilt_place::unknown;
    }
    return waits(&rebuilt, &live) ? rebuilt_place::waiting : rebuilt_place::swapped_in;
}

// Owner and mode that the rebuilt file is to have: those of the live file; where that was moved
// away and its successor never came, of its backup; where there was none, of the other live file.
// `there` false: none of them is there.
static int find_owner(const table_swap* swap, const swap_file* file, name_status* owner) {
    *owner = {};
    char absent[FILE_LINE_SIZE];
    snprintf(absent, sizeof absent, "%s absent\n", file->live_name);
    const char* backup = has_line(swap, absent) ? file->live : file->backup;
    const char* other = swap->files[file == &swap->files[0] ? 1 : 0].live;
    for (const char* path : {file->live, backup, other}) {
        if (io_stat(path, &owner->status) == 0) {
            owner->there = S_ISREG(owner->status.st_mode);
            return 0;
        }
        if (errno != ENOENT) {
            return failed("get the status of", path);
        }
    }
    return 0;
}

static int set_owner(int fd, const struct stat64* wanted, const struct stat64* now) {
    constexpr mode_t bits = 07777;
    const bool owned = wanted->st_uid == now->st_uid && wanted->st_gid == now->st_gid;
    if (owned && (wanted->st_mode & bits) == (now->st_mode & bits)) {
        return 0;
    }
    if (!owned && io_set_owner(fd, wanted->st_uid, wanted->st_gid) != 0) {
        return -1;
    }
    return io_set_mode(fd, wanted->st_mode & bits) == 0 && io_sync(fd) == 0 ? 0 : -1;
}

static int give_owner(const char* rebuilt, const name_status* owner) {
    if (!owner->there) {
        return 0;
    }
    name_status now;
    if (look_at(rebuilt, &now) != 0) {
        return -1;
    }
    const int fd = io_open(rebuilt, O_RDONLY | O_NOFOLLOW, 0);
    const scoped_fd file(fd > 0 ? fd : 0);
    return fd > 0 && set_owner(fd, &owner->status, &now.status) == 0
               ? 0
               : failed("set owner and mode of", rebuilt);
}

static bool has_no_links(int error) {
    return error == EPERM || error == EOPNOTSUPP || error == ENOSYS || error == EMLINK ||
           error == EXDEV;
}

enum class backup_step { not_needed, linked, moved, failed };

// Makes the live file its own backup as well. A link is renamed, so that an older backup goes only
// when the new one is there; where the file system has no links, the live file itself moves.
static backup_step keep_live(const swap_file* file) {
    name_status live;
    name_status backup;
    if (look_at(file->live, &live) != 0 || look_at(file->backup, &backup) != 0) {
        return backup_step::failed;
    }
    if (!live.there || are_one(&live, &backup)) {
        return backup_step::not_needed;
    }
    if (io_link(file->live, file->next_backup) == 0) {
        if (io_rename(file->next_backup, file->backup) == 0) {
            return backup_step::linked;
        }
        (void)failed("rename to", file->backup);
        return backup_step::failed;
    }
    if (!has_no_links(errno)) {
        (void)failed("link to", file->next_backup);
        return backup_step::failed;
    }
    if (io_rename(file->live, file->backup) != 0) {
        (void)failed("rename to", file->backup);
        return backup_step::failed;
    }
    return backup_step::moved;
}

static int move_in(const table_swap* swap, const swap_file* file, const name_status* owner) {
    // The backup's name is on the disk before the live name leads to another file.
    if (sync_directory(swap->live_dir) != 0 || give_owner(file->rebuilt, owner) != 0) {
        return -1;
    }
    return io_rename(file->rebuilt, file->live) == 0 ? 0 : failed("rename to", file->live);
}

static int swap_in(const table_swap* swap, const swap_file* file) {
    if (io_unlink(file->next_backup) != 0 && errno != ENOENT) {  // a rename to it might do nothing
        return failed("remove", file->next_backup);
    }
    const rebuilt_place place = find_rebuilt(swap, file);
    if (place != rebuilt_place::waiting) {
        return place == rebuilt_place::swapped_in ? 0 : -1;
    }
    name_status owner;
    if (find_owner(swap, file, &owner) != 0) {
        return -1;
    }
    const backup_step backup = keep_live(file);
    if (backup == backup_step::failed) {
        return -1;
    }
    const int result = move_in(swap, file, &owner);
    if (result != 0 && backup == backup_step::moved &&
        io_rename(file->backup, file->live) != 0) {  // else no file would have the live name
        return failed("rename back to", file->live);
    }
    return result;
}

// The rebuilt file has its name in the work directory back before the original takes the live name
// again. 0, or -1, logged.
static int name_both_again(const table_swap* swap, const swap_file* file) {
    if (io_link(file->live, file->rebuilt) != 0) {
        const bool move = has_no_links(errno);
        if (!move || io_rename(file->live, file->rebuilt) != 0) {
            return failed(move ? "rename to" : "link to", file->rebuilt);
        }
        return io_rename(file->backup, file->live) == 0 ? 0 : failed("rename to", file->live);
    }
    (void)sync_directory(swap->work_dir);  // logged; a pair that is live matters more
    if (io_link(file->backup, file->next_backup) != 0) {
        return failed("link to", file->next_backup);
    }
    return io_rename(file->next_backup, file->live) == 0 ? 0 : failed("rename to", file->live);
}

// The index could not follow the table: a service that is resumed must find a pair, so the original
// table is live again, and the next run begins with it.
static void take_back(const table_swap* swap, const swap_file* file) {
    char absent[FILE_LINE_SIZE];
    snprintf(absent, sizeof absent, "%s absent\n", file->live_name);
    if (has_line(swap, absent) || name_both_again(swap, file) != 0) {
        log_err_as(REPAIR, "%s is rebuilt and the index is not: do not start the service\n",
                   file->live);
        return;
    }
    (void)sync_directory(swap->live_dir);  // logged
}

int table_swap_forget(const table_swap* swap) {
    if (io_unlink(swap->marker) != 0) {
        return failed("remove", swap->marker);
    }
    return sync_directory(swap->work_dir);
}

int table_swap_finish(const table_swap* swap) {
    const swap_file* table = &swap->files[0];
    const swap_file* index = &swap->files[1];
    if (sync_directory(swap->live_dir) != 0 || swap_in(swap, table) != 0) {
        return -1;
    }
    if (swap_in(swap, index) != 0) {
        take_back(swap, table);
        return -1;
    }
    return sync_directory(swap->live_dir) == 0 ? table_swap_forget(swap) : -1;
}
