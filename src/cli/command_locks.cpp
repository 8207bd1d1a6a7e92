#include "cli/command_locks.h"

#include <cstdio>

#include "options.h"
#include "platform.h"
#include "volume/run_lock.h"

static constexpr size_t JOURNAL_ROOT_SIZE = 256;

// Logs nothing if there is no journal root: the command reports that itself.
static int lock_journal(run_lock* lock) {
    if (opt_ctx.jnlpath[0] != '\0') {
        return run_lock_journal(lock, opt_ctx.jnlpath, nullptr);
    }
    char root[JOURNAL_ROOT_SIZE] = {};
    if (ORBAiSCSIConfJournalRootPathGet(root, sizeof root, 0) < 0 || root[0] == '\0') {
        return 0;
    }
    char journal[JOURNAL_ROOT_SIZE + 16];
    snprintf(journal, sizeof journal, "%s/%s", root, JOURNAL_NAME);
    return run_lock_journal(lock, journal, nullptr);
}

static int lock_tables(run_lock* lock) {
    return run_lock_file(lock, opt_ctx.fripath) == 0 && run_lock_file(lock, opt_ctx.tblpath) == 0
               ? 0
               : -1;
}

static int lock_volume(run_lock* lock) {
    return run_lock_add(lock, opt_ctx.volpath, nullptr);
}

static int lock_map(run_lock* lock) {
    return run_lock_file(lock, opt_ctx.mappath);
}

static int lock_map_to_repair(run_lock* lock) {
    return opt_ctx.repair != 0 ? lock_map(lock) : 0;
}

struct lock_row {
    command_locks bit;
    int (*take)(run_lock* lock);
};
static constexpr lock_row lock_rows[] = {
    {LOCKS_VOLUME, lock_volume},         //
    {LOCKS_TABLES, lock_tables},         //
    {LOCKS_MAP, lock_map},               //
    {LOCKS_REPAIR, lock_map_to_repair},  //
    {LOCKS_ALL_VOLUMES, run_lock_all_volumes},
    {LOCKS_JOURNAL, lock_journal},
};

int take_command_locks(run_lock* lock, unsigned what) {
    for (const lock_row& row : lock_rows) {
        if ((what & row.bit) != 0 && row.take(lock) != 0) {
            return -1;
        }
    }
    return 0;
}
