// Runs the program under test on a sample, with the preload library in it. Below: call_kinds.h.
// Above: the drivers of the campaigns.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "campaign/preload/call_kinds.h"

struct run_setup {
    std::string words;          // the command line after the program's name, without quotes
    std::string configuration;  // path of the platform configuration
    std::string input;          // standard input
    std::string fault;          // as PRELOAD_FAULT, empty: none
    std::string recording;      // file to record to, empty: none
    unsigned long long kill;    // SIGKILL before that operation, 0: none
};

struct program_run {
    int status;                                        // exit status, -1 when it did not exit
    int signal;                                        // the one that ended it; 0: it exited
    bool hung;                                         // it did not end within 20 seconds
    std::string out;                                   // standard output
    std::vector<std::string> log;                      // lines for the system log
    std::array<unsigned long long, CALL_KINDS> calls;  // all 0 if it did not exit
    std::string hit;  // "KIND PATH" of the call that failed first, empty: none did
};

// `place` is a directory for the run's own files (output, log, notes); it is made, and emptied.
program_run run_tarn(const std::string& place, const run_setup& setup);
