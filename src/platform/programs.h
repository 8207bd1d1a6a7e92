// Running programs by their path with an argument list, no shell. Below: the system.
#pragma once

#include <sys/types.h>

constexpr int PROGRAM_ARGUMENTS_MAX = 64;  // its name and the closing null included

// Starts `argv[0]`; its standard output goes to `out_fd` unless that is -1. Every descriptor above
// the three standard ones is closed in it. It gets the signal mask that this process started with,
// and the default action of the signals that this process ignores. Returns its process id; -1 if it
// could not be started.
pid_t program_start(char* const argv[], int out_fd);
// Waits for its end. Returns its wait status, -1 on failure.
int program_wait(pid_t pid);
// Does both. Returns its exit status, -1 if it could not be run or did not exit.
int program_run(char* const argv[]);
// The same in a separate process group: Ctrl-C on the terminal does not end it.
int program_run_apart(char* const argv[]);
