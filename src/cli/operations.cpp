#include "cli/operations.h"

#include <cstdio>
#include <getopt.h>

#include "cli/sub_options.h"
#include "options.h"
#include "volume/consistency.h"
#include "volume/discovery.h"
#include "volume/full_check.h"
#include "volume/import.h"
#include "volume/import_volume.h"
#include "volume/journal_drivers.h"
#include "volume/journal_state.h"
#include "volume/map_check.h"
#include "volume/one_key.h"
#include "volume/reconstruct.h"
#include "volume/startup_replay.h"
#include "volume/volume_journal.h"
#include "volume/work_dir.h"

static void put_path(char* out, const char* path) {
    snprintf(out, PATH_TEXT_SIZE, "%s", path);
}

volume_paths paths_of_options() {
    volume_paths paths = {};
    set_volume_root(&paths, opt_ctx.volpath);
    put_path(paths.table, opt_ctx.tblpath);
    put_path(paths.index, opt_ctx.fripath);
    put_path(paths.journal, opt_ctx.jnlpath);
    put_path(paths.map, opt_ctx.mappath);
    return paths;
}

// Stores in the record the last volume and files that a procedure used.
static void store_paths(const volume_paths* paths) {
    put_path(opt_ctx.volpath, paths->root);
    put_path(opt_ctx.tblpath, paths->table);
    put_path(opt_ctx.fripath, paths->index);
    put_path(opt_ctx.jnlpath, paths->journal);
    put_path(opt_ctx.mappath, paths->map);
}

// The scan that a procedure makes in the middle of its work: the options replace its paths.
static int scan_again(option_scan* scan, volume_paths* paths) {
    if (optind >= scan->argc) {
        return 0;  // nothing is left, as in every scan after the first
    }
    store_paths(paths);
    const int result = parse_sub_options(scan->argc, scan->argv);
    *paths = paths_of_options();
    scan->repair = opt_ctx.repair;
    return result;
}

// Runs `procedure` on the paths of the options; it may scan the options itself.
static int run_scanning(int argc, char** argv,
                        int (*procedure)(volume_paths* paths, option_scan* options)) {
    volume_paths paths = paths_of_options();
    option_scan scan = {argc, argv, scan_again, opt_ctx.repair};
    const int result = procedure(&paths, &scan);
    store_paths(&paths);
    return result;
}

// The same for a procedure that scans nothing.
template <class Procedure, class... Arguments>
static int run(Procedure procedure, Arguments... arguments) {
    volume_paths paths = paths_of_options();
    const int result = procedure(&paths, arguments...);
    store_paths(&paths);
    return result;
}

// To select the overload of a name that takes only paths.
using on_paths = int (*)(const volume_paths* paths);
using changing_paths = int (*)(volume_paths* paths);

int get_jnl_root_path() {
    return run<changing_paths>(get_jnl_root_path);
}

int prepare_jnl_path() {
    return run<changing_paths>(prepare_jnl_path);
}

int enum_all_vaai_luns(path_entry* list) {
    return run<int (*)(const volume_paths*, path_entry*)>(enum_all_vaai_luns, list);
}

int set_journal_ro_bad_when_ro_volume_exist() {
    return run<on_paths>(set_journal_ro_bad_when_ro_volume_exist);
}

int check_fri_journal(int, char**, int) {
    return run<on_paths>(check_fri_journal);
}

int check_tbl_journal(int, char**, int) {
    return run<on_paths>(check_tbl_journal);
}

int check_map_journal(int, char**, int) {
    return run<on_paths>(check_map_journal);
}

int check_vol_journal(int, char**, int) {
    return run<changing_paths>(check_vol_journal);
}

int check_all_vol_journal(int argc, char** argv) {
    return run_scanning(argc, argv, check_all_vol_journal);
}

int replay_fri_journal(int argc, char** argv, int) {
    return run_scanning(argc, argv, replay_fri_journal);
}

int replay_tbl_journal(int argc, char** argv, int) {
    return run_scanning(argc, argv, replay_tbl_journal);
}

int replay_map_journal(int argc, char** argv, int) {
    return run_scanning(argc, argv, replay_map_journal);
}

int replay_vol_journal(int argc, char** argv, int) {
    return run_scanning(argc, argv, replay_vol_journal);
}

int replay_all_vol_journal(int argc, char** argv, int) {
    return run_scanning(argc, argv, replay_all_vol_journal);
}

int tarn_set_journal_status(uint32_t status) {
    return run<int (*)(const volume_paths*, uint32_t)>(tarn_set_journal_status, status);
}

int tarn_get_journal_status(uint32_t* status) {
    return run<int (*)(const volume_paths*, uint32_t*)>(tarn_get_journal_status, status);
}

int vaai_startup_replay(int argc, char** argv) {
    return run_scanning(argc, argv, vaai_startup_replay);
}

int check_metadata_consistent(int argc, char** argv) {
    return run_scanning(argc, argv, check_metadata_consistent);
}

int check_all_vol_metadata_consistent(int argc, char** argv) {
    return run_scanning(argc, argv, check_all_vol_metadata_consistent);
}

int check_freelist_consistent() {
    return run<on_paths>(check_freelist_consistent);
}

int fix_fri_tbl_metadata_to_consistent() {
    return run<on_paths>(fix_fri_tbl_metadata_to_consistent);
}

int do_check_full_tbl_consistent() {
    return run<on_paths>(do_check_full_tbl_consistent);
}

int check_full_volume() {
    return run<int (*)(const volume_paths*, int32_t)>(check_full_volume, opt_ctx.repair);
}

int finalize() {
    return run<on_paths>(finalize);
}

int check_map() {
    return run<int (*)(const volume_paths*, int32_t, int32_t)>(check_map, opt_ctx.map_kind,
                                                               opt_ctx.repair);
}

int import() {
    return run<int (*)(const volume_paths*, int32_t)>(import, opt_ctx.map_kind);
}

int do_import_volume(const char* dir_name) {
    return run<int (*)(const volume_paths*, const char*, int32_t, linked_groups*)>(
        do_import_volume, dir_name, opt_ctx.repair, nullptr);
}

int do_reconstruct_volume() {
    return run<int (*)(const volume_paths*, int32_t)>(do_reconstruct_volume, opt_ctx.repair);
}

int one_key_repair(int argc, char** argv, int) {
    return run_scanning(argc, argv, one_key_repair);
}

int one_key_check_all_vol(int argc, char** argv, int) {
    return run_scanning(argc, argv, one_key_check_all_vol);
}

void remove_work_dir(const char* dir_name) {
    remove_work_dir(opt_ctx.volpath, dir_name);
}
