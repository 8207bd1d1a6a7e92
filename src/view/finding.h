// One finding: what is wrong, where, and whose data lie there. Plain values: whoever looks fills
// them, whoever prints reads them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "view/findings.h"

// What the numbers of a place count.
enum class place_kind { none, lpa, group, block, node, lea, journal_block, byte };

struct lea_range {
    uint64_t lea;
    uint64_t count;
};

// A map that has data at the place of a finding.
struct finding_owner {
    std::string lun;                // as people call it: "LUN_7", "snapshot FAMILY_3 (path)"
    std::string kind;               // "lun", "trash", "snapshot", "unmap buffer", "copy map"
    std::string file;               // below the volume's root
    std::vector<lea_range> ranges;  // ascending, merged
    uint64_t ranges_left_out = 0;
};

constexpr int NO_CAUSE = -1;

struct finding {
    finding_code code;
    severity level;
    std::string volume;  // root; empty: the server or its journal
    std::string file;    // below the root, raw bytes; empty: no single file
    place_kind place = place_kind::none;
    uint64_t first = 0;
    uint64_t count = 0;
    uint64_t extent_size = 0;  // bytes, of the volume; 0: unknown
    std::vector<finding_owner> owners;
    std::string was;               // on disk, hexadecimal or a number; empty: does not apply
    std::string ought;             // what it should be
    std::string detail;            // words of this one finding, a whole sentence or empty
    int because = NO_CAUSE;        // number in the list of the finding that explains this one
    uint64_t number = 1;           // places that this finding stands for, when it is not one run
    std::vector<std::string> log;  // lines of the library, where it spoke
    std::string next;              // empty: that of the catalogue
};
