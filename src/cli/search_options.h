// The short options of --search: one table per handler, and one scan for all.
// Below: the option scanner of the system. Above: the search handlers.
#pragma once

#include <cstdint>

// What the options of one run asked for. Zero at start.
struct search_request {
    int mode;           // number of the display; 0: none was chosen
    char partner;       // the option that may still be combined with the display; 0: none
    uint64_t group;     // numbers are signed on the command line, and not bounded
    uint64_t offset;    // of an entry in its group
    uint64_t address;   // lpa or lea
    uint64_t block;     // of the journal
    uint64_t start;     // block where the search begins
    uint64_t trans_id;  // its low 32 bits count
    bool list_entries;  // tbl -l
    bool head_only;     // tbl -h
    bool dump_blocks;   // jnl -d
    bool trace_blocks;  // jnl -l
    bool detail;        // jnl -x
};

struct search_option {
    char letter;                       // 0 ends a table
    char partner;                      // the one option that it may be combined with
    int mode;                          // the display that it chooses; 0: it chooses none
    uint64_t search_request::*number;  // where its argument goes
    bool search_request::*flag;        // what it switches on
};

struct search_options {
    const char* handler;  // its name in the log
    const char* letters;  // in the form of getopt
    char* path;           // where the argument of -p goes, PATH_TEXT_SIZE bytes
    const search_option* table;
};

// Reads all options into `request`, and -p into the path, which is emptied first. Unknown options
// are logged and skipped. 0, or -1, logged.
int scan_search_options(int argc, char** argv, const search_options* options,
                        search_request* request);
