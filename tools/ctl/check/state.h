// What a check knows while it runs: one record a volume, one a map. The steps get it as an
// argument; nothing here is process-wide. Below: src/view, runs.h. Above: the steps.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ctl/check/check.h"
#include "ctl/check/runs.h"
#include "ctl/check/window_names.h"
#include "fri/fri_format.h"
#include "map/map_format.h"
#include "store/descriptor.h"
#include "tbl/tbl_format.h"
#include "tbl/tbl_ref_counts.h"
#include "view/header_view.h"
#include "view/server_files.h"

struct check_state;
struct volume_check;

// Damaged blocks, as runs that touch no other one, each with the finding that reports it.
struct damaged_run {
    uint64_t end;
    int finding;
};
using damaged_blocks = std::map<uint64_t, damaged_run>;  // by the first block
// The finding that reports the block; NO_CAUSE: it is not damaged.
int cause_of_block(const damaged_blocks& blocks, uint64_t block);
// Adds a damaged block of `file`: to the finding of the run that it continues, or to a new one of
// `code`. A block that is known changes nothing.
int add_damaged_block(check_state* state, const volume_check* volume, damaged_blocks* blocks,
                      finding_code code, const std::string& path, uint64_t block);

// Extents whose references come from a place that is wrong itself, with the finding that says so.
using suspect_extents = std::map<uint64_t, int>;
constexpr size_t SUSPECTS_MAX = 1 << 18;  // extents; 20 MiB at the worst

struct map_check {
    const view_map* file = nullptr;
    map_header header = {};
    header_view view;
    bool readable = false;           // its file can be opened and holds a header
    bool damaged = false;            // a node or a part of the header is not what it was
    bool complete = false;           // every entry was read
    uint64_t entries = 0;            // that count, from lea 0 on
    uint64_t mapped = 0;             // of them
    uint64_t behind = 0;             // mapped entries behind the last one, in its node
    uint64_t after_end = 0;          // of an unmap buffer: mapped entries after the first blank
    uint64_t looked_at = 0;          // entries whose references count
    int pool_finding = NO_CAUSE;     // M06
    int damaged_finding = NO_CAUSE;  // M01, the first one
    std::vector<uuid_bytes> pools;
    std::vector<bool> rows_used;  // of the pool table, by mapped entries
};

struct volume_check {
    const volume_files* files = nullptr;
    tbl_header table = {};
    fri_header index = {};
    header_view table_view;
    header_view index_view;
    bool has_table = false;  // it can be judged
    bool has_index = false;
    uint32_t shift = 0;              // an extent has 2^shift bytes; 0: unknown
    bool shift_is_doubtful = false;  // it comes from a part of the header that is damaged
    uint64_t extents = 0;  // those of the data files, or of the table when there is no data file
    std::vector<map_check> maps;
    bool all_maps_read = true;
    bool has_far = false;  // a map refers to extents past those that are counted

    damaged_blocks bad_table_blocks;
    damaged_blocks bad_index_blocks;
    suspect_extents suspects;

    std::vector<fri_entry> near_groups;  // entries of the index for groups of the data files
    uint64_t index_end = 0;              // after the highest initialised group
    uint64_t initialised = 0;            // groups
    uint64_t used_extents = 0;           // in the table
    bool table_read = true;              // no group of it is missing in that count

    std::map<finding_code, run_list> runs;  // of extents, groups and blocks
};

struct check_state {
    const check_request* request = nullptr;
    server_files server;
    std::vector<volume_check> volumes;   // the chosen ones
    std::vector<uuid_bytes> pool_uuids;  // of the tables of all volumes
    bool pools_unknown = false;          // a table's uuid could not be read
    std::vector<uuid_bytes> data_uuids;  // of data files
    std::vector<finding> findings;
    bool complete = true;
    int replay_cause = NO_CAUSE;  // J08 or J03: what a journal explains
    window_names window;          // of the journal
    std::vector<std::string> left_out;
};

// The path of a file of the volume as a finding gives it: below the root.
inline std::string below_root(const volume_check* volume, const std::string& path) {
    return path.substr(volume->files->root.size() + 1);
}

// Adds a finding with the catalogue's severity and returns its number.
int add_finding(check_state* state, finding_code code, const volume_check* volume,
                const std::string& file = {});
// Something that could not be looked at: X01, and the check is incomplete.
int add_unread(check_state* state, const volume_check* volume, const std::string& path, int error);

inline uint64_t extent_bytes(const volume_check* volume) {
    return volume->shift == 0 ? 0 : uint64_t{1} << volume->shift;
}

const char* kind_word(map_place place);  // "lun", "snapshot", ...
// For people: "LUN_7 of /volume1", "table of /volume1".
std::string map_words(const map_check& map);
std::string table_words(const volume_check& volume);
// The owner that a finding in one map names.
finding_owner owner_of(const map_check& map);

// The steps, in their order.
void check_places(check_state* state);                               // volumes, names, data files
void check_headers(check_state* state);                              // and identities
void read_volume_headers(check_state* state, volume_check* volume);  // table and index, of these
void check_index_blocks(check_state* state, volume_check* volume);
void check_group_list(check_state* state, volume_check* volume);
void name_owners(check_state* state, volume_check* volume);  // turns runs into findings
