// `tarnctl check`: looks at a whole server and writes nothing. Below: src/view. Above: main.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/output.h"
#include "ctl/text/progress.h"
#include "view/finding.h"

struct check_request {
    std::vector<std::string> volumes;         // roots; empty: all
    bool raw = false;                         // what is on the disk, without a pending journal
    bool quick = false;                       // without the maps
    bool data_holes = false;                  // D04
    bool all = false;                         // list consequences and every run
    progress_line* progress = nullptr;        // gets the scans of maps and tables; null: none does
    uint64_t memory = uint64_t{64} << 20;     // bytes for counters and buckets
    std::string inventory;                    // file to compare with; empty: none
    const struct inventory* known = nullptr;  // its contents; null: there is nothing to compare
    std::string state;                        // file that gets the verdict; empty: none
};

// The extents of a volume. None: not known.
struct volume_figures {
    std::string volume;              // root
    uint64_t extent_size = 0;        // bytes; 0: unknown
    std::optional<uint64_t> used;    // in the table
    std::optional<uint64_t> free;    // in the table
    std::optional<uint64_t> leaked;  // in use, and in no map
    std::optional<uint64_t> room;    // bytes that the volume's file system has left
};

enum class check_mode { as_found, as_if_replayed, raw };

struct check_report {
    std::string server;          // host name
    std::string journal_path;    // empty: no journal file
    std::string journal_status;  // "success", "abnormal", ...; empty: unknown
    uint64_t journal_last_id = 0;
    check_mode mode = check_mode::as_found;
    std::vector<std::string> volumes;     // roots that were looked at
    std::vector<volume_figures> figures;  // of these volumes, in their order; no room
    std::vector<finding> findings;        // folded and sorted as they are to be printed
    bool complete = true;                 // false: something could not be looked at
    std::vector<std::string> left_out;    // sentences: what was not looked at, and why
    // The inventory is of another server: the reason. Then the report is empty otherwise.
    std::string refusal;
    double seconds = 0;
};

// Fills the report. False: it could not run at all; `problem` says why.
bool check_server(const check_request& request, check_report* report, std::string* problem);

// The same for a look that is under way, without folding what was found.
struct server_look;
bool check_look(server_look* look, check_report* report, std::string* problem);
// What a report says before its findings: server, volumes, journal, mode.
check_report opening_of_look(const server_look& look);

// Notes never change it. Damage wins over incomplete.
ctl_exit exit_of(const check_report& report);
const char* verdict_of(const check_report& report);  // "clean", "counts", "damage", ...

// The command: checks, prints the report, and returns the exit status.
int run_check(const check_request& request, const output_style& style);
