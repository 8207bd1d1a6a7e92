// The state of the storage service: volumes with table and index, maps, the journal, and the
// metadata writes that may not have reached the disk yet. Plain records; the files that include
// this define the operations. Below: random.h, options.h, the on-disk formats.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "jnl/jnl_format.h"
#include "lab/options.h"
#include "lab/random.h"

namespace lab {

using uuid = std::array<uint8_t, UUID_SIZE>;

enum class map_role : unsigned { lun, snapshot, trash, buffer, rod };

// A map file: a LUN's, a snapshot's, one in the trash, the unmap buffer or the copy map.
struct lun_map {
    uuid id;
    map_role role;
    size_t volume;
    std::string path;         // below the sample's directory
    std::vector<uuid> pools;  // rows of the pool table
    uint32_t own_row;         // the row of this volume's pool; entries use no other row
    std::vector<uint64_t> entries;
    uint64_t mapped_count;
    uint64_t last_commit;     // newest commit that names the map; 0 if none
    uint64_t last_pools_use;  // newest one that is replayed with its pool table; 0 if none
    uint64_t noise;           // seed of the bytes that no record carries
};

struct volume {
    std::string root;  // below the sample's directory
    uuid pool;
    uint32_t extent_size;        // bytes
    std::vector<uint16_t> tbl;   // entries of all groups up to the highest one ever used
    std::vector<fri_entry> fri;  // of the same groups; all later entries are zero
    uint64_t free_count;
    uint64_t group_head;
    uint64_t group_count;         // in the index's header; no record carries it
    std::vector<size_t> maps;     // indexes into model::maps; removed maps are not listed
    std::vector<uint64_t> taken;  // extents in the order in which they were taken from free lists
    uint64_t noise;
    uint64_t noisy_blocks;  // number of blocks at the table's start that may carry noise
};

struct ring {
    jnl_header header;
    std::vector<jnl_block> blocks;
    uint64_t budget;   // number of newest commits whose metadata writes may be missing
    uint64_t largest;  // number of blocks of the largest transaction
    uint64_t next_block;
    uint32_t next_id;
    uint64_t commits;  // number of complete ones
};

// One datum of the metadata: an entry, or a header's counters, which are written as a unit.
enum class datum_kind : unsigned { tbl_entry, fri_entry, fri_counters, map_entry, map_count };
struct datum {
    datum_kind kind;
    size_t file;   // number of the volume or map
    uint64_t key;  // lpa, group or lea; 0 for counters
};
using datum_value = std::array<uint64_t, 2>;  // the second word: the group head of fri_counters

struct metadata_write {
    datum where;
    uint64_t commit;  // number of the commit that it belongs to, from 1
    datum_value before;
    datum_value after;
};

// The state of the newest transaction when the power failed.
enum class torn_kind {
    none,           // complete
    header_old,     // some blocks written, the header does not name it yet
    header_new,     // the header was written before some of its blocks
    damaged_start,  // as header_new, and the first block is half written or has a wrong bit
};

// Which of the metadata writes inside the budget are missing on the disk.
enum class loss_kind : unsigned {
    none,
    all,
    uniform,
    all_but_one,
    only_one,
    by_commit,
    by_file,
    by_block,
    count
};

struct crash_plan {
    torn_kind torn = torn_kind::none;
    loss_kind loss = loss_kind::none;
    unsigned kept_percent = 0;  // of uniform, by_commit and by_file
    uint64_t salt = 0;
};

struct model {
    parameters sample;
    random_stream work;  // random numbers for the workload
    std::vector<volume> volumes;
    std::vector<lun_map> maps;
    ring journal;
    crash_plan plan;
    uint64_t burst_from;                 // number of commits after which most transactions allocate
    bool logging;                        // false while the sample is set up
    std::vector<metadata_write> writes;  // of the commits inside the budget, oldest first
    bool crashed;                        // in the end, by --crash or in age
    bool ran;   // after the sample was made, its service ran and was killed
    bool aged;  // after the sample was made, age changed it
};

}  // namespace lab
