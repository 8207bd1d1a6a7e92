#include "cli/commands.h"

#include <cerrno>
#include <cstdio>
#include <getopt.h>

#include "cli/command_locks.h"
#include "cli/long_options.h"
#include "cli/one_key_commands.h"
#include "cli/operations.h"
#include "cli/punch_command.h"
#include "cli/status_commands.h"
#include "cli/sub_options.h"
#include "cli/type_words.h"
#include "cli/usage.h"
#include "options.h"
#include "print.h"
#include "store/keep_journal.h"
#include "volume/run_lock.h"
#include "volume/swap_marker.h"
#include "volume/unmap_buffer.h"
#include "volume/volume_paths.h"

static int run_ckjnl(int argc, char** argv, const char* word) {
    return get_funs(word, ckjnl_funs)(argc, argv, 0);
}

static int run_rpjnl(int argc, char** argv, const char* word) {
    return get_funs(word, rpjnl_funs)(argc, argv, 0);
}

static int run_create(int argc, char** argv, const char* word) {
    return get_funs(word, create_funs)(argc, argv, 0);
}

static int run_change_uuid(int argc, char** argv, const char* word) {
    return get_funs(word, chuuid_funs)(argc, argv, 0);
}

static int run_search(int argc, char** argv, const char* word) {
    return get_funs(word, search_funs)(argc, argv, 0);
}

static int run_startup_replay(int argc, char** argv, const char*) {
    return vaai_startup_replay(argc, argv);
}

static int run_metack(int argc, char** argv, const char*) {
    return check_metadata_consistent(argc, argv);
}

static int run_freeck(int, char**, const char*) {
    return check_freelist_consistent();
}

static int run_vaaifix(int, char**, const char*) {
    return fix_fri_tbl_metadata_to_consistent();
}

static int run_ckvjnl(int argc, char** argv, const char*) {
    return check_all_vol_journal(argc, argv);
}

// Scans the options first, to get the journal's path; the replay's own scan finds none left.
static int run_rpvjnl(int argc, char** argv, const char*) {
    run_lock_scope held;
    if (parse_sub_options(argc, argv) != 0 ||
        take_command_locks(&held.lock, LOCKS_ALL_VOLUMES | LOCKS_JOURNAL) != 0) {
        return -1;
    }
    return replay_all_vol_journal(argc, argv, 0);
}

static int run_help(int, char**, const char*) {
    print_usage(program_invocation_short_name);
    return 0;
}

static int run_advhelp(int, char**, const char*) {
    print_advanced_usage(program_invocation_short_name);
    return 0;
}

static int run_fullck(int, char**, const char*) {
    return check_full_volume();
}

static int run_import(int, char**, const char*) {
    return import();
}

static int run_import_volume(int, char**, const char*) {
    return table_swap_expect_none(opt_ctx.volpath) == 0 ? do_import_volume(FIX_DIR) : -1;
}

static int run_finalize(int, char**, const char*) {
    return finalize();
}

static int run_check_map(int, char**, const char*) {
    return check_map();
}

static int run_punch(int argc, char** argv, const char*) {
    return punch_hole(argc, argv);
}

static int run_reconstruct(int, char**, const char*) {
    return is_vaai_volume(opt_ctx.volpath) == 1 && table_swap_expect_none(opt_ctx.volpath) == 0
               ? do_reconstruct_volume()
               : -1;
}

static int run_ckvbuf(int, char**, const char*) {
    return count_vol_unmap_buffer();
}

// Who reads the options after a command.
enum option_reader { TABLE_READS, COMMAND_READS };

// How a failed write, sync or read during the run affects the command's result.
enum command_verdict {
    WHOLE,     // 0 means that everything was written and read: a failure makes it -1
    AS_FOUND,  // the result is what the command found; failures are only logged
};

struct command_row {
    const char* name;
    int has_argument;
    option_reader reader;
    command_verdict verdict;
    unsigned locks;  // command_locks, unless the command reads its options, or locks, itself
    int (*run)(int argc, char** argv, const char* argument);
};
static constexpr command_row commands[] = {
    {"ckjnl", required_argument, TABLE_READS, WHOLE, LOCKS_NOTHING, run_ckjnl},
    {"rpjnl", required_argument, TABLE_READS, WHOLE,
     LOCKS_VOLUME | LOCKS_TABLES | LOCKS_MAP | LOCKS_JOURNAL, run_rpjnl},
    {"vaaick", required_argument, COMMAND_READS, AS_FOUND, LOCKS_NOTHING, vaai_status_check},
    {"set-status", required_argument, COMMAND_READS, WHOLE, LOCKS_NOTHING, vaai_status_set},
    {"startup-replay", no_argument, COMMAND_READS, WHOLE, LOCKS_NOTHING, run_startup_replay},
    {"metack", no_argument, COMMAND_READS, WHOLE, LOCKS_NOTHING, run_metack},
    {"freeck", no_argument, TABLE_READS, WHOLE, LOCKS_NOTHING, run_freeck},
    {"fullck", no_argument, TABLE_READS, WHOLE, LOCKS_VOLUME, run_fullck},
    {"vaaifix", no_argument, TABLE_READS, WHOLE, LOCKS_TABLES, run_vaaifix},
    {"create", required_argument, COMMAND_READS, WHOLE, LOCKS_NOTHING, run_create},
    {"change-uuid", required_argument, COMMAND_READS, WHOLE, LOCKS_NOTHING, run_change_uuid},
    {"import", no_argument, TABLE_READS, WHOLE, LOCKS_TABLES, run_import},
    {"import-volume", no_argument, TABLE_READS, WHOLE, LOCKS_VOLUME, run_import_volume},
    {"finalize", no_argument, TABLE_READS, WHOLE, LOCKS_TABLES, run_finalize},
    {"check-map", no_argument, TABLE_READS, WHOLE, LOCKS_REPAIR, run_check_map},
    {"search", required_argument, COMMAND_READS, AS_FOUND, LOCKS_NOTHING, run_search},
    {"ckvjnl", no_argument, COMMAND_READS, WHOLE, LOCKS_NOTHING, run_ckvjnl},
    {"rpvjnl", no_argument, COMMAND_READS, WHOLE, LOCKS_NOTHING, run_rpvjnl},
    {"punch", no_argument, COMMAND_READS, WHOLE, LOCKS_NOTHING, run_punch},
    {"reconstruct", no_argument, TABLE_READS, WHOLE, LOCKS_VOLUME, run_reconstruct},
    {"ckvbuf", no_argument, COMMAND_READS, WHOLE, LOCKS_NOTHING, run_ckvbuf},
    {"help", no_argument, COMMAND_READS, AS_FOUND, LOCKS_NOTHING, run_help},
    {"advhelp", no_argument, COMMAND_READS, AS_FOUND, LOCKS_NOTHING, run_advhelp},
    {"onekeycheck", no_argument, COMMAND_READS, WHOLE, LOCKS_NOTHING, run_onekeycheck},
    {"onekeyrepair", no_argument, TABLE_READS, WHOLE, LOCKS_NOTHING, run_onekeyrepair},
};
static_assert(sizeof commands / sizeof commands[0] == 25);

// The result of a command after a failed write, sync or read.
static int result_after_failures(int result) {
    const keep_reasons failures = keep_journal_failures();
    if (failures.count == 0) {
        return result;
    }
    log_err_as("main", "This run is not complete, failures %llu, the first: %s\n",
               ull(failures.count), failures.first);
    return -1;
}

static int refuse_wrong_option() {
    printf("\x1b[31m%s\x1b[0m", "TARN_RPT: VAAI Wrong option...\n");
    print_usage(program_invocation_short_name);
    return -1;
}

int run_command(int argc, char** argv) {
    static constexpr auto options = long_options(commands);
    // One call: only the first option selects the command.
    const int found = getopt_long_only(argc, argv, "", options.data(), nullptr);
    const command_row* command = row_of_result(commands, found);
    if (command == nullptr) {
        return refuse_wrong_option();
    }
    const char* argument = optarg;  // the next scan overwrites optarg
    if (command->reader == TABLE_READS && parse_sub_options(argc, argv) != 0) {
        return -1;
    }
    run_lock_scope held;
    if (take_command_locks(&held.lock, command->locks) != 0) {
        return -1;
    }
    const int result = command->run(argc, argv, argument);
    return command->verdict == WHOLE ? result_after_failures(result) : result;
}
