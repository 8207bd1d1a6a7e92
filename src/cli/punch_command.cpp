#include "cli/punch_command.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>

#include "cli/operations.h"
#include "options.h"
#include "store/log.h"
#include "volume/hole_punching.h"
#include "volume/metadata_files.h"
#include "volume/run_lock.h"

struct punch_options {
    bool all_groups;
    int64_t offset;  // lpa
    int64_t length;  // extents
};

// Decimal, signed; out-of-range values saturate, deliberate.
static int64_t decimal(const char* text) {
    return strtoll(text, nullptr, 10);
}

// Copies the volume's root. A path that does not fit is cut, as in the other options.
static void copy_volume_path(const char* argument) {
    const int length = snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", argument);
    if (length < 0 || static_cast<size_t>(length) >= sizeof opt_ctx.volpath) {
        log_err_as("punch_hole", "path is cut to %zu characters\n", sizeof opt_ctx.volpath - 1);
    }
}

// For the scanner's "?": `letter` is unknown, or an option without its argument.
static int refuse_option(int letter) {
    switch (letter) {
        case 'p':
            log_err_as("punch_hole", "Bad param for -p option\n");
            return -1;
        case 'o':
            log_err_as("punch_hole", "Bad param for -o option\n");
            return -1;
        case 'l':
            log_err_as("punch_hole", "Bad param for -l option\n");
            return -1;
        default:
            log_err_as("punch_hole", "UNKNOW cmd %c\n", letter);
            return 0;
    }
}

// 0 to continue; -1, logged.
static int take_option(punch_options* options, int found) {
    switch (found) {
        case 'a':
            options->all_groups = true;
            return 0;
        case 'p':
            copy_volume_path(optarg);
            return 0;
        case 'o':
            options->offset = decimal(optarg);
            if (options->offset < 0) {
                log_err_as("punch_hole", "Offset should equal or greater than zero\n");
                return -1;
            }
            return 0;
        case 'l':
            options->length = decimal(optarg);
            if (options->length < 0) {
                log_err_as("punch_hole", "Length should equal or greater than zero\n");
                return -1;
            }
            return 0;
        default:
            return refuse_option(optopt);
    }
}

static int scan_options(int argc, char** argv, punch_options* options) {
    int found;
    while ((found = getopt(argc, argv, "ap:o:l:")) != -1) {
        if (take_option(options, found) != 0) {
            return -1;
        }
    }
    return 0;
}

// Only the whole line "YES" is a yes; the end of the input is a no.
static bool answered_yes() {
    char line[10] = {};
    printf("Do you wants to PUCH the data?(YES/NO) [NO]: ");
    fflush(stdout);
    return fgets(line, sizeof line, stdin) != nullptr && strcmp(line, "YES\n") == 0;
}

// With table and index loaded.
static int ask_and_punch(const char* root, const punch_options* options) {
    if (!answered_yes()) {
        return 0;
    }
    printf("TARN_INFO: PUNCH volume: %s\n", root);
    const int result =
        dat_cal_end_lpa(root, options->all_groups, static_cast<uint64_t>(options->offset),
                        static_cast<uint64_t>(options->length));
    if (result != 0) {
        log_err_as("punch_hole", "Fail to PUNCH %s\n", root);
    }
    return result;
}

int punch_hole(int argc, char** argv) {
    punch_options options{};
    run_lock_scope held;
    if (scan_options(argc, argv, &options) != 0) {
        return -1;
    }
    volume_paths paths = paths_of_options();
    if (is_vaai_volume(paths.root) != 1 || run_lock_add(&held.lock, paths.root, nullptr) != 0) {
        return -1;
    }
    (void)set_table_paths(&paths, EP_DIR);  // logged; the load of an empty path fails
    return with_files(__func__, &paths, {KIND_FRI, KIND_TBL},
                      [&] { return ask_and_punch(paths.root, &options); });
}
