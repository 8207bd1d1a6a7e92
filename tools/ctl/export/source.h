// A LUN of a server, ready to be read: chosen by name, its headers judged, its map as if the
// journal were replayed. Below: look.h, lun_names.h, lun_reader.h. Above: `tarnctl export`, the
// plug-in.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ctl/check/look.h"
#include "ctl/output.h"
#include "view/lun_reader.h"

// Why something cannot be done, with the exit status for it. EXIT_CLEAN: it can.
struct lun_answer {
    ctl_exit status = EXIT_CLEAN;
    std::string reason;
};

struct lun_source {
    check_request request;                 // of the look
    std::unique_ptr<server_look> look;     // its overlay stays on
    std::optional<journal_moment> before;  // the look; on the disk
    bool moving = false;                   // the service wrote during every look
    std::vector<std::string> warnings;     // whole sentences
    const volume_check* volume = nullptr;  // of the look
    const map_check* map = nullptr;
    std::unique_ptr<lun_reader> reader;
};

// Finds the LUN and opens it. `inconsistent`: also if the service writes, or if the journal waits
// and cannot be replayed; a warning says so then.
lun_answer open_lun(const std::string& name, bool inconsistent, lun_source* source);

// After the bytes were read: whether the service wrote meanwhile, so that they are of different
// moments.
bool was_written_meanwhile(const lun_source& source);

// "damaged node of the map", ...: why bytes of this kind are missing.
const char* why_missing(lun_stretch_kind kind);
