#include "lab/file_records.h"

#include <algorithm>
#include <cstring>

#include "lab/choose.h"
#include "lab/extents.h"
#include "lab/metadata.h"

namespace lab {

constexpr uint64_t MAP_KEPT_BIT = uint64_t{1} << 61;

static jnl_file_entry entry_of(metadata_file_type type, const uuid& file) {
    jnl_file_entry entry;
    memset(&entry, 0, sizeof entry);
    entry.type = type;
    copy_uuid(entry.uuid, file);
    return entry;
}

// The four record_ functions record the change of one datum; record_map also makes it.
static void record_map(model* m, transaction* t, size_t map_index, uint64_t lea, uint64_t word) {
    const lun_map& map = m->maps[map_index];
    jnl_file_entry entry = entry_of(FILE_TYPE_MAP, map.id);
    const uint64_t before = map.entries[lea];
    entry.map.lea = lea;
    entry.map.old_entry.word = before;
    entry.map.new_entry.word = word;
    entry.map.old_mapped_count = map.mapped_count;
    set_map(m, map_index, lea, word);
    set_mapped_count(m, map_index,
                     map.mapped_count + (is_mapped(word) ? 1 : 0) - (is_mapped(before) ? 1 : 0));
    entry.map.new_mapped_count = map.mapped_count;
    add_file_entry(m, t, entry);
    note_named_map(m, map_index);
}

static void record_tbl(model* m, transaction* t, const volume& vol, uint64_t lpa, uint16_t before) {
    jnl_file_entry entry = entry_of(FILE_TYPE_TBL, vol.pool);
    entry.tbl.lpa = lpa;
    entry.tbl.old_entry.word = before;
    entry.tbl.new_entry.word = vol.tbl[lpa];
    add_file_entry(m, t, entry);
}

static void record_fri(model* m, transaction* t, const volume& vol, uint64_t group,
                       const fri_entry& before) {
    jnl_file_entry entry = entry_of(FILE_TYPE_FRI, vol.pool);
    entry.fri.group_num = group;
    entry.fri.old_entry = before;
    entry.fri.new_entry = vol.fri[group];
    add_file_entry(m, t, entry);
}

struct fri_counters {
    uint64_t free_count;
    uint64_t group_head;
};

static void record_counters(model* m, transaction* t, const volume& vol,
                            const fri_counters& before) {
    jnl_file_entry entry = entry_of(FILE_TYPE_FRI_VAR0, vol.pool);
    entry.fri_var0.old_free_count = before.free_count;
    entry.fri_var0.new_free_count = vol.free_count;
    entry.fri_var0.old_index_head = before.group_head;
    entry.fri_var0.new_index_head = vol.group_head;
    add_file_entry(m, t, entry);
}

// Drops one reference in the table and, if it was the last one, frees the extent in the index. With
// `each_step` it records index and counters at once; otherwise the caller records them at the end.
static void release(model* m, transaction* t, size_t volume_index, uint64_t lpa, bool each_step) {
    const volume& vol = m->volumes[volume_index];
    const uint64_t group = tbl_group_of(lpa);
    const uint16_t tbl_before = vol.tbl[lpa];
    const fri_entry fri_before = vol.fri[group];
    const fri_counters before = {vol.free_count, vol.group_head};
    const bool last = references(vol, lpa) == 1;
    if (last) {
        free_extent(m, volume_index, lpa);
    } else {
        drop_reference(m, volume_index, lpa);
    }
    record_tbl(m, t, vol, lpa, tbl_before);
    if (last && each_step) {
        record_fri(m, t, vol, group, fri_before);
        record_counters(m, t, vol, before);
    }
}

// Records index and counters once, with their values after everything that the transaction freed.
static void record_final_index(model* m, transaction* t, const volume& vol,
                               const std::vector<fri_entry>& fri_before,
                               const fri_counters& before) {
    for (uint64_t group = 0; group < fri_before.size(); group++) {
        if (fri_entry_count(&fri_before[group]) != fri_entry_count(&vol.fri[group])) {
            record_fri(m, t, vol, group, fri_before[group]);
        }
    }
    if (before.free_count != vol.free_count) {
        record_counters(m, t, vol, before);
    }
}

// Removes an entry from the buffer, which has no gaps: the last entry moves into the freed place.
// Adds two FILE entries at most.
static void remove_from_buffer(model* m, transaction* t, size_t map_index, uint64_t lea) {
    const lun_map& buffer = m->maps[map_index];
    const uint64_t end = buffer.mapped_count - 1;
    if (lea != end) {
        record_map(m, t, map_index, lea, buffer.entries[end]);
    }
    record_map(m, t, map_index, end, 0);
}

static uint64_t pick_entry_to_free(model* m, const lun_map& buffer) {
    return random_chance(&m->work, 30) ? random_below(&m->work, buffer.mapped_count)
                                       : buffer.mapped_count - 1;
}

bool free_from_buffer(model* m, transaction* t, size_t volume_index) {
    constexpr uint64_t ENTRIES_EACH = 5;  // table, index, counters, map twice
    const size_t map_index = pick_map(m, volume_index, role_bit(map_role::buffer));
    const lun_map& buffer = m->maps[map_index];
    const uint64_t fits = file_entry_room(*t) / ENTRIES_EACH;
    const uint64_t want = random_between(&m->work, 1, random_chance(&m->work, 20) ? 60 : 6);
    const uint64_t count = std::min({fits, want, buffer.mapped_count});
    if (count == 0) {
        return false;
    }
    const volume& vol = m->volumes[volume_index];
    const bool each_step = random_chance(&m->work, 50);
    const std::vector<fri_entry> fri_before = each_step ? std::vector<fri_entry>() : vol.fri;
    const fri_counters before = {vol.free_count, vol.group_head};
    for (uint64_t i = 0; i < count; i++) {
        const uint64_t lea = pick_entry_to_free(m, buffer);
        const uint64_t lpa = lpa_of(buffer.entries[lea]);
        const bool map_first = random_chance(&m->work, 50);
        if (map_first) {
            remove_from_buffer(m, t, map_index, lea);
        }
        release(m, t, volume_index, lpa, each_step);
        if (!map_first) {
            remove_from_buffer(m, t, map_index, lea);
        }
    }
    if (!each_step) {
        record_final_index(m, t, vol, fri_before, before);
    }
    return true;
}

void touch_entry_of(model* m, transaction* t, size_t map_index) {
    const lun_map& map = m->maps[map_index];
    const uint64_t lea = random_below(&m->work, map.entries.size());
    record_map(m, t, map_index, lea, map.entries[lea] ^ MAP_KEPT_BIT);
}

bool touch_entry(model* m, transaction* t, size_t volume_index) {
    touch_entry_of(m, t, pick_map(m, volume_index, ALL_ROLES));
    return true;
}

bool share_extent(model* m, transaction* t, size_t volume_index) {
    const unsigned roles = role_bit(map_role::lun) | role_bit(map_role::snapshot);
    const size_t to = pick_map(m, volume_index, roles);
    const lun_map& source = m->maps[pick_map(m, volume_index, roles)];
    const lea_run source_run = pick_mapped(m, source);
    const lea_run target_run = pick_target(m, m->maps[to], 1);
    if (source_run.length == 0 || target_run.length == 0 || file_entry_room(*t) < 2) {
        return false;
    }
    const volume& vol = m->volumes[volume_index];
    const uint64_t lpa = lpa_of(source.entries[source_run.start]);
    if (references(vol, lpa) == TBL_COUNT_MAX) {
        return false;
    }
    const uint16_t before = vol.tbl[lpa];
    add_reference(m, volume_index, lpa);
    record_tbl(m, t, vol, lpa, before);
    record_map(m, t, to, target_run.start, mapped_word(m, m->maps[to], lpa));
    return true;
}

bool prepare_group(model* m, transaction* t, size_t volume_index) {
    volume& vol = m->volumes[volume_index];
    const uint64_t group = end_group(vol);
    reach_group(&vol, group);
    const fri_entry before = vol.fri[group];
    initialise_group(m, volume_index, group);
    record_fri(m, t, vol, group, before);
    return true;
}

}  // namespace lab
