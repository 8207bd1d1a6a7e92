#include "cli/search_options.h"

#include <algorithm>
#include <cstdlib>
#include <getopt.h>

#include "metadata.h"
#include "store/log.h"
#include "volume/volume_paths.h"

static const search_option* find_option(const search_option* table, int letter) {
    for (const search_option* row = table; row->letter != 0; row++) {
        if (row->letter == letter) {
            return row;
        }
    }
    return nullptr;
}

// The first display is kept. Its partner may be added once; the higher number of the two counts.
static bool choose_mode(search_request* request, const search_option* option) {
    if (request->mode == 0) {
        request->mode = option->mode;
        request->partner = option->partner;
        return true;
    }
    if (request->partner != option->letter) {
        return false;
    }
    request->mode = std::max(request->mode, option->mode);
    request->partner = 0;
    return true;
}

static int apply_option(const search_options* options, const search_option* option,
                        const char* argument, search_request* request) {
    if (option->mode != 0 && !choose_mode(request, option)) {
        log_err_as(options->handler, "Don't support combinational executive command %d\n",
                   request->mode);
        return -1;
    }
    if (option->number != nullptr) {
        request->*option->number = static_cast<uint64_t>(strtoll(argument, nullptr, 10));
    }
    if (option->flag != nullptr) {
        request->*option->flag = true;
    }
    return 0;
}

// For the scanner's "?": `letter` is unknown, or an option without its argument.
static int refuse_option(const search_options* options, int letter) {
    if (letter == 'p' || find_option(options->table, letter) != nullptr) {
        log_err_as(options->handler, "Bad param for -%c option\n", letter);
        return -1;
    }
    log_err_as(options->handler, "UNKNOW cmd %c\n", letter);
    return 0;  // skipped
}

static int read_option(const search_options* options, int letter, search_request* request) {
    if (letter == '?') {
        return refuse_option(options, optopt);
    }
    if (letter == 'p') {
        return form_path(options->path, PATH_TEXT_SIZE, "%s", optarg);
    }
    return apply_option(options, find_option(options->table, letter), optarg, request);
}

int scan_search_options(int argc, char** argv, const search_options* options,
                        search_request* request) {
    options->path[0] = '\0';
    int letter;
    while ((letter = getopt(argc, argv, options->letters)) != -1) {
        if (read_option(options, letter, request) != 0) {
            return -1;  // logged there
        }
    }
    return 0;
}
