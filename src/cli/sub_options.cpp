#include "cli/sub_options.h"

#include <cstdio>
#include <cstring>
#include <getopt.h>

#include "cli/long_options.h"
#include "options.h"
#include "store/log.h"

option_record opt_ctx;

static constexpr size_t UUID_TEXT_SIZE = 2 * UUID_SIZE;  // hexadecimal digits

// A path that does not fit is cut: the system opens no file by a path that long.
static void copy_path(char* path, const char* argument) {
    const int length = snprintf(path, PATH_TEXT_SIZE, "%s", argument);
    if (length < 0 || static_cast<size_t>(length) >= PATH_TEXT_SIZE) {
        log_err("path is cut to %zu characters\n", PATH_TEXT_SIZE - 1);
    }
}

// The value of a hexadecimal digit, -1 for any other character.
static int digit_value(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if (digit >= 'a' && digit <= 'f') {
        return digit - 'a' + 10;
    }
    if (digit >= 'A' && digit <= 'F') {
        return digit - 'A' + 10;
    }
    return -1;
}

static void print_uuid(const uint8_t* uuid) {
    printf("Input UUID[");
    for (size_t i = 0; i < UUID_SIZE; i++) {
        // The byte is sign-extended: 0x9A prints ffffff9a, deliberate.
        const int widened = uuid[i] < 0x80 ? uuid[i] : uuid[i] - 0x100;
        printf("%02x", static_cast<unsigned>(widened));
    }
    printf("]\n");
}

// 0, or -1, reported on standard output; what came before a bad pair of digits stays stored.
static int parse_uuid(const char* text, uint8_t* uuid) {
    if (strlen(text) != UUID_TEXT_SIZE) {
        puts("UUID length must be 32");
        return -1;
    }
    memset(uuid, 0, UUID_SIZE);
    for (size_t i = 0; i < UUID_SIZE; i++) {
        const int high = digit_value(text[2 * i]);
        const int low = digit_value(text[2 * i + 1]);
        if (high < 0 || low < 0) {
            puts("UUID string has invalid char");
            return -1;
        }
        uuid[i] = static_cast<uint8_t>(high * 16 + low);
    }
    print_uuid(uuid);
    return 0;
}

static int set_path(const char* argument) {
    opt_ctx.path = argument;
    return 0;
}

static int set_oldpath(const char* argument) {
    opt_ctx.oldpath = argument;
    return 0;
}

static int set_uuid(const char* argument) {
    return parse_uuid(argument, opt_ctx.uuid);
}

static int set_unmap(const char*) {
    opt_ctx.map_kind = MAP_KIND_UNMAP_BUFFER;
    return 0;
}

static int set_rod(const char*) {
    opt_ctx.map_kind = MAP_KIND_ROD;
    return 0;
}

static int set_repair(const char*) {
    opt_ctx.repair = 1;
    return 0;
}

struct sub_option_row {
    const char* name;
    int has_argument;
    char* path;                        // the field that gets a copy of the argument, or
    int (*set)(const char* argument);  // what else happens; 0, or -1 ends the scan
};
static constexpr sub_option_row sub_options[] = {
    {"path", required_argument, nullptr, set_path},
    {"oldpath", required_argument, nullptr, set_oldpath},
    {"fripath", required_argument, opt_ctx.fripath, nullptr},
    {"tblpath", required_argument, opt_ctx.tblpath, nullptr},
    {"mappath", required_argument, opt_ctx.mappath, nullptr},
    {"jnlpath", required_argument, opt_ctx.jnlpath, nullptr},
    {"volpath", required_argument, opt_ctx.volpath, nullptr},
    {"uuid", required_argument, nullptr, set_uuid},
    {"unmap", no_argument, nullptr, set_unmap},
    {"rod", no_argument, nullptr, set_rod},
    {"repair", no_argument, nullptr, set_repair},
};

static int apply_sub_option(const sub_option_row* row, const char* argument) {
    if (row->path != nullptr) {
        copy_path(row->path, argument);
        return 0;
    }
    return row->set(argument);
}

// Leftover arguments: reported, -1. Without any: 0.
static int refuse_leftover_arguments(int argc, char** argv) {
    if (optind >= argc) {
        return 0;
    }
    printf("none-option argv element:");
    for (int i = optind; i < argc; i++) {
        printf("%s ", argv[i]);
    }
    printf("\n");
    return -1;
}

int parse_sub_options(int argc, char** argv) {
    static constexpr auto options = long_options(sub_options);
    int found;
    while ((found = getopt_long_only(argc, argv, "", options.data(), nullptr)) != -1) {
        const sub_option_row* row = row_of_result(sub_options, found);
        if (row != nullptr && apply_sub_option(row, optarg) != 0) {
            return -1;
        }
    }
    return refuse_leftover_arguments(argc, argv);
}
