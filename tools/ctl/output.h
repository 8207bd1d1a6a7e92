// What all commands share when they end: the common options for their output, the exit statuses,
// and the ways to fail. Below: nothing. Above: every command.
#pragma once

#include <string>

struct output_style {
    bool json = false;      // JSON Lines
    bool quiet = false;     // the result only
    bool color = false;     // of text
    bool progress = false;  // on standard error
};

// Exit statuses of every command.
enum ctl_exit : int {
    EXIT_CLEAN = 0,
    EXIT_COUNTS = 3,
    EXIT_DAMAGE = 4,
    EXIT_URGENT = 5,
    EXIT_INCOMPLETE = 6,
    EXIT_COULD_NOT_RUN = 8,
    EXIT_USAGE = 16,
    EXIT_REFUSED = 32,
};

// Both print one line on standard error and return EXIT_COULD_NOT_RUN.
int complain(const std::string& problem);
int cannot_write();  // the result, errno says why
// Prints why on standard error and returns EXIT_REFUSED.
int refuse(const std::string& reason);
