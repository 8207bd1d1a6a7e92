#include "volume/table_swap.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>

#include "store/log.h"
#include "volume/work_dir.h"

enum class rebuilt_place { waiting, swapped_in, unknown };

// Finds out where the rebuilt file is. It is recognised by size, uuid and checksum. If its name in
// the work directory is gone, it must be the live file.
static rebuilt_place find_rebuilt(const table_swap* swap, const swap_file* file) {
    name_status rebuilt;
    name_status live;
    if (swap_stat(file->rebuilt, &rebuilt) != 0 || swap_stat(file->live, &live) != 0) {
        return rebuilt_place::unknown;
    }
    const char* path = rebuilt.there ? file->rebuilt : file->live;
    const name_status* found = rebuilt.there ? &rebuilt : &live;
    char line[SWAP_LINE_SIZE] = "";
    if (S_ISREG(found->status.st_mode) && !swap_describe(file->rebuilt_name, path, line)) {
        return rebuilt_place::unknown;
    }
    if (!swap_has_uuid(line) || !swap_has_line(swap, line)) {
        log_err_as(SWAP_LOG_NAME, "%s is not the rebuilt file that %s names and stays as it is\n",
                   path, swap->marker);
        return rebuilt_place::unknown;
    }
    return swap_is_pending(&rebuilt, &live) ? rebuilt_place::waiting : rebuilt_place::swapped_in;
}

// Finds the owner and mode for the rebuilt file: those of the live file; if that was moved away and
// not replaced, those of its backup; if there was no live file, those of the other live file.
// `there` is false if none of them exists. 0; -1, logged.
static int find_owner(const table_swap* swap, const swap_file* file, name_status* owner) {
    *owner = {};
    char absent[SWAP_LINE_SIZE];
    snprintf(absent, sizeof absent, "%s absent\n", file->live_name);
    const char* backup = swap_has_line(swap, absent) ? file->live : file->backup;
    const char* other = swap->files[file == &swap->files[0] ? 1 : 0].live;
    for (const char* path : {file->live, backup, other}) {
        if (io_stat(path, &owner->status) == 0) {
            owner->there = S_ISREG(owner->status.st_mode);
            return 0;
        }
        if (errno != ENOENT) {
            return swap_failed("get the status of", path);
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

static int copy_owner(const char* rebuilt, const name_status* owner) {
    if (!owner->there) {
        return 0;
    }
    name_status now;
    if (swap_stat(rebuilt, &now) != 0) {
        return -1;
    }
    const int fd = io_open(rebuilt, O_RDONLY | O_NOFOLLOW, 0);
    const scoped_fd file(fd > 0 ? fd : 0);
    return fd > 0 && set_owner(fd, &owner->status, &now.status) == 0
               ? 0
               : swap_failed("set owner and mode of", rebuilt);
}

static bool has_no_links(int error) {
    return error == EPERM || error == EOPNOTSUPP || error == ENOSYS || error == EMLINK ||
           error == EXDEV;
}

enum class backup_step { not_needed, linked, moved, failed };

// Gives the live file the name of the backup as well. That is done with a new link and a rename, so
// that an older backup is only replaced, never missing; if the file system has no links, the live
// file itself is moved.
static backup_step keep_live(const swap_file* file) {
    name_status live;
    name_status backup;
    if (swap_stat(file->live, &live) != 0 || swap_stat(file->backup, &backup) != 0) {
        return backup_step::failed;
    }
    if (!live.there || swap_same_file(&live, &backup)) {
        return backup_step::not_needed;
    }
    if (io_link(file->live, file->next_backup) == 0) {
        if (io_rename(file->next_backup, file->backup) == 0) {
            return backup_step::linked;
        }
        (void)swap_failed("rename to", file->backup);
        return backup_step::failed;
    }
    if (!has_no_links(errno)) {
        (void)swap_failed("link to", file->next_backup);
        return backup_step::failed;
    }
    if (io_rename(file->live, file->backup) != 0) {
        (void)swap_failed("rename to", file->backup);
        return backup_step::failed;
    }
    return backup_step::moved;
}

static int replace_live(const table_swap* swap, const swap_file* file, const name_status* owner) {
    // The backup's name is on the disk before the live name refers to another file.
    if (sync_directory(swap->live_dir) != 0 || copy_owner(file->rebuilt, owner) != 0) {
        return -1;
    }
    return io_rename(file->rebuilt, file->live) == 0 ? 0 : swap_failed("rename to", file->live);
}

static int swap_in(const table_swap* swap, const swap_file* file) {
    if (io_unlink(file->next_backup) != 0 && errno != ENOENT) {  // a rename to it might do nothing
        return swap_failed("remove", file->next_backup);
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
    const int result = replace_live(swap, file, &owner);
    if (result != 0 && backup == backup_step::moved &&
        io_rename(file->backup, file->live) != 0) {  // else no file would have the live name
        return swap_failed("rename back to", file->live);
    }
    return result;
}

// Gives the rebuilt file its name in the work directory back, and then the live name to the
// original. 0, or -1, logged.
static int restore_both_names(const table_swap* swap, const swap_file* file) {
    if (io_link(file->live, file->rebuilt) != 0) {
        const bool move = has_no_links(errno);
        if (!move || io_rename(file->live, file->rebuilt) != 0) {
            return swap_failed(move ? "rename to" : "link to", file->rebuilt);
        }
        return io_rename(file->backup, file->live) == 0 ? 0 : swap_failed("rename to", file->live);
    }
    (void)sync_directory(swap->work_dir);  // logged; a live pair matters more
    if (io_link(file->backup, file->next_backup) != 0) {
        return swap_failed("link to", file->next_backup);
    }
    return io_rename(file->next_backup, file->live) == 0 ? 0 : swap_failed("rename to", file->live);
}

// Undoes the swap of the table, since that of the index failed: a resumed service must find a pair.
// The next run begins with the table again.
static void undo_swap_in(const table_swap* swap, const swap_file* file) {
    char absent[SWAP_LINE_SIZE];
    snprintf(absent, sizeof absent, "%s absent\n", file->live_name);
    if (swap_has_line(swap, absent) || restore_both_names(swap, file) != 0) {
        log_err_as(SWAP_LOG_NAME, "%s is rebuilt and the index is not: do not start the service\n",
                   file->live);
        return;
    }
    (void)sync_directory(swap->live_dir);  // logged
}

int table_swap_finish(const table_swap* swap) {
    const swap_file* table = &swap->files[0];
    const swap_file* index = &swap->files[1];
    if (sync_directory(swap->live_dir) != 0 || swap_in(swap, table) != 0) {
        return -1;
    }
    if (swap_in(swap, index) != 0) {
        undo_swap_in(swap, table);
        return -1;
    }
    return sync_directory(swap->live_dir) == 0 ? table_swap_forget(swap) : -1;
}
