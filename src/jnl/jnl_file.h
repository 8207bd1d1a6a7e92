// The journal as a file: its meta nodes, its status, its commit budget. One open journal for the
// process. This program reads blocks and never writes them; it changes the status only.
// Below: meta nodes, file primitives. Above: blocks, the commit search.
#pragma once

#include "jnl/jnl_format.h"

struct jnl_file {
    int fd;  // 0: no journal is open
    jnl_header header;
    char path[PATH_TEXT_SIZE];  // as it was opened, cut to fit
};
extern jnl_file current_jnl;

// Opens `path`. 0, or -1, logged; after a failure the descriptor that was opened stays set: the
// caller closes.
int load_jnl(const char* path);
// Closes; nothing to do when none is open. While blocks are kept, the file stays open for the next
// load of the same path.
void close_jnl();

// The shutdown tag as a signed value (JNL_STATUS_ABNORMAL reads as -1); -1, logged, when no
// journal is open.
int32_t journal_status();
// Stores `tag` and writes all four meta nodes. 0, also when the write failed (counted as a failed
// write), deliberate; -1 when no journal is open (logged) or the present tag is not a known one.
int set_journal_status(uint32_t tag);
// Commits that verification and replay walk back: twice jnl_sync_count, 2^32 - 1 at most; 128 for
// a count of 0; 0, logged, when no journal is open.
uint32_t journal_sync_count();
