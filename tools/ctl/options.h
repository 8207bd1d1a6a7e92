// The command line of tarnctl. Below: the commands' requests. Above: main.
#pragma once

#include <string>
#include <vector>

#include "ctl/check/check.h"
#include "ctl/export/export.h"
#include "ctl/guard/guard.h"
#include "ctl/health/health.h"
#include "ctl/inventory/inventory.h"
#include "ctl/punch/punch.h"
#include "ctl/space/space.h"

enum class ctl_command { none, check, explain, space, health, punch, inventory, guard, export_lun };
enum class when { automatic, always, never };

struct ctl_options {
    ctl_command command = ctl_command::none;  // none: there is nothing to run
    std::string conf;                         // empty: the system's own configuration
    bool json = false;
    bool quiet = false;
    when color = when::automatic;
    when progress = when::automatic;
    check_request check;
    std::vector<std::string> words;  // of explain
    space_request space;
    health_request health;
    punch_request punch;
    inventory_request inventory;
    guard_request guard;
    export_request export_lun;
};

struct parsed_options {
    ctl_options options;
    int status = EXIT_CLEAN;  // if there is nothing to run: EXIT_USAGE, or 0 after --help
    std::string out;          // for standard output: help, version
    std::string err;          // for standard error: what is wrong with the command line
};

parsed_options parse_options(int argc, const char* const* argv);

// "16M", "1G", "1048576": bytes from 1 MiB to 64 GiB; K, M and G are powers of 1024. 0: anything
// else.
uint64_t parse_size(const std::string& text);

// Decimal digits, nothing else. False: not such a number, or over 2^64 - 1.
bool parse_number(const std::string& text, uint64_t* number);
