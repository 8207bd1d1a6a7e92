// The operations over volumes as the command line calls them: each takes its paths and switches
// from the option record, and stores there the paths that it ended with. Below: the procedures,
// which get all of that as arguments and document their results. Above: the command table, the type
// words.
#pragma once

#include <cstdint>

#include "volume/volume_paths.h"

struct path_entry;

// The paths that the options name; the unmap buffer and the ROD map are those of the root.
volume_paths paths_of_options();

// Volumes and the journal's path.
int get_jnl_root_path();
int prepare_jnl_path();
int enum_all_vaai_luns(path_entry* list);
int set_journal_ro_bad_when_ro_volume_exist();

// The journal: files, volumes, status. The third argument is unused.
int check_fri_journal(int argc, char** argv, int argument);
int check_tbl_journal(int argc, char** argv, int argument);
int check_map_journal(int argc, char** argv, int argument);
int check_vol_journal(int argc, char** argv, int argument);
int check_all_vol_journal(int argc, char** argv);
int replay_fri_journal(int argc, char** argv, int argument);
int replay_tbl_journal(int argc, char** argv, int argument);
int replay_map_journal(int argc, char** argv, int argument);
int replay_vol_journal(int argc, char** argv, int argument);
int replay_all_vol_journal(int argc, char** argv, int argument);
int tarn_set_journal_status(uint32_t status);
int tarn_get_journal_status(uint32_t* status);
int vaai_startup_replay(int argc, char** argv);

// Table and index.
int check_metadata_consistent(int argc, char** argv);
int check_all_vol_metadata_consistent(int argc, char** argv);
int check_freelist_consistent();
int fix_fri_tbl_metadata_to_consistent();
int do_check_full_tbl_consistent();
int check_full_volume();
int finalize();

// Maps, and rebuilds from them.
int check_map();
int import();
int do_import_volume(const char* dir_name);
void remove_work_dir(const char* dir_name);
int do_reconstruct_volume();
int one_key_repair(int argc, char** argv, int argument);
int one_key_check_all_vol(int argc, char** argv, int argument);
