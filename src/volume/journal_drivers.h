// Checking one file against the journal, and replaying the journal into one file: which files are
// loaded, in which order, and what is printed. Below: metadata_files.h, jnl_check.h, jnl_replay.h.
// Above: volume_journal.h, the commands.
#pragma once

#include "volume/option_scan.h"
#include "volume/volume_paths.h"

struct jnl_seen_keys;

// The replays scan the options first, which may change `paths`. 0, or -1, logged; every file is
// closed.
int check_fri_journal(const volume_paths* paths);
int check_tbl_journal(const volume_paths* paths);
int check_map_journal(const volume_paths* paths);
int replay_fri_journal(volume_paths* paths, option_scan* options);
int replay_tbl_journal(volume_paths* paths, option_scan* options);
int replay_map_journal(volume_paths* paths, option_scan* options);
// One pass of the table's replay, see jnl_file_type_replay_pass.
int replay_tbl_journal_pass(volume_paths* paths, option_scan* options, jnl_seen_keys* applied);
