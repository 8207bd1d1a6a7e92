// Which maps refer to each extent of a volume: for every map, how many extents it refers to, and
// how many of them no other map refers to. Exact, in one scan over the maps for each window of
// memory. Below: map_format.h, zero_memory.h. Above: space.cpp.
//
// An extent has one word: the last map that referred to it, and whether another one did before. A
// map that meets its own number has counted the extent already; a map that meets a number without
// the mark takes the extent away from that map's own ones. Words come in regions, which get their
// place when the first scan meets them; regions that do not fit are left to later scans.
#pragma once

#include <cstdint>
#include <memory>

#include "store/data_node.h"

constexpr unsigned OWNER_REGION_SHIFT = 19;  // 128 groups of the table

// Extents, each counted once.
struct owner_figures {
    uint64_t referred = 0;   // to by this map
    uint64_t exclusive = 0;  // of them, to by no other map
};

class extent_owners {
public:
    virtual ~extent_owners() = default;

    // Prepares a scan over the maps. False: every region was scanned.
    virtual bool begin_scan() = 0;
    // The nodes that come next are those of map `number`, from 1 on. The maps of a scan come in
    // ascending order.
    virtual void begin_map(uint32_t number) = 0;
    // The first `entries` (0..63) entries of a node of that map.
    virtual void add_node(const data_node* node, uint32_t entries) = 0;
    virtual void end_scan() = 0;

    // Whether the scan that ended settled the region: its words are here, or no map has an extent
    // in it. Each region is settled by one scan.
    [[nodiscard]] virtual bool settled(uint64_t region) const = 0;
    // The first region from `region` on that has words here; far past the last one if none has.
    [[nodiscard]] virtual uint64_t next_region(uint64_t region) const = 0;
    // Marks the extents of a group, in a region that was settled, that some map refers to. False:
    // there are none.
    virtual bool owned_in_group(uint64_t group, bool* owned) const = 0;

    // After the last scan.
    [[nodiscard]] virtual owner_figures of_map(uint32_t number) const = 0;
    [[nodiscard]] virtual uint64_t shared() const = 0;  // by several maps
    [[nodiscard]] virtual uint64_t of_set() const = 0;  // to which only maps of the set refer
    // After the first scan: entries of a map that are mapped, and those of them past the last
    // extent, which are counted nowhere else.
    [[nodiscard]] virtual uint64_t mapped(uint32_t number) const = 0;
    [[nodiscard]] virtual uint64_t past_end(uint32_t number) const = 0;
};

struct owners_wanted {
    uint32_t maps;     // their numbers are 1 to this
    uint32_t set;      // the maps 1 to this one count as one owner in of_set()
    uint64_t extents;  // of the volume
    uint64_t memory;   // bytes for the words; a region takes 1 MiB, or 2 with very many maps
};
// Null: no memory.
std::unique_ptr<extent_owners> count_owners(const owners_wanted& wanted);
