// Whose records the journal's window holds. Below: jnl_format.h. Above: the look at the journal.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <utility>

#include "ctl/known/inventory.h"
#include "jnl/jnl_format.h"

// What the window says of a map.
struct window_map {
    uint32_t newest_id = 0;  // of a transaction that names it
    // The newest record of one of its entries leaves it mapped. Of maps that are not known.
    bool still_maps = false;
};

class window_names {
public:
    // A map that the server has: whether its entries stay mapped is not asked.
    void know(const uuid_bytes& uuid) { known_.insert(uuid); }
    // A block of the window; the newest one first.
    void note(const jnl_block& block);

    [[nodiscard]] const std::map<uuid_bytes, window_map>& maps() const { return maps_; }
    // Uuids that records give to a table or an index.
    [[nodiscard]] const std::set<uuid_bytes>& tables() const { return tables_; }
    [[nodiscard]] bool is_empty() const { return maps_.empty() && tables_.empty(); }

private:
    void note_entry(const uint8_t* uuid, uint64_t lea, bool mapped);
    window_map* note_map(const uint8_t* uuid);
    void note_file(const jnl_block& block);
    void note_filled(const uint8_t* uuid, uint64_t lea, const map_entry* entries, unsigned count);
    void note_emptied(const uint8_t* uuid, uint64_t lea, unsigned count);

    std::set<uuid_bytes> known_;
    std::map<uuid_bytes, window_map> maps_;
    std::set<uuid_bytes> tables_;
    std::set<std::pair<uuid_bytes, uint64_t>> seen_;  // entries whose newest record was met
    uint32_t id_ = 0;                                 // of the block in hand
};
