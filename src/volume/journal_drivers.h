// Checking one file against the journal, and replaying the journal into one file: which files are
// loaded, in which order, and what is printed. Below: the three kinds, jnl_check.h, jnl_replay.h.
#pragma once

struct jnl_seen_keys;

// Handlers of the type words. Paths come from opt_ctx; the replaying ones scan sub-options
// themselves (what was scanned before is not read again). 0, or -1, logged; every file is closed.
int check_fri_journal(int argc, char** argv, int argument);
int check_tbl_journal(int argc, char** argv, int argument);
int check_map_journal(int argc, char** argv, int argument);
int replay_fri_journal(int argc, char** argv, int argument);
int replay_tbl_journal(int argc, char** argv, int argument);
int replay_map_journal(int argc, char** argv, int argument);
// One pass of the table's replay, see jnl_file_type_replay_pass.
int replay_tbl_journal_pass(int argc, char** argv, jnl_seen_keys* applied);
