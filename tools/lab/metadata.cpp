#include "lab/metadata.h"

#include <algorithm>
#include <cstring>

namespace lab {

static uint64_t word_of(const fri_entry& entry) {
    uint64_t word = 0;
    memcpy(&word, &entry, sizeof word);
    return word;
}

static fri_entry entry_of(uint64_t word) {
    fri_entry entry{};
    memcpy(&entry, &word, sizeof entry);
    return entry;
}

static void change(model* m, const datum& where, const datum_value& before,
                   const datum_value& after) {
    if (m->logging) {
        m->writes.push_back({where, m->journal.commits + 1, before, after});
    }
    put_datum(m, where, after);
}

void set_tbl(model* m, size_t volume_index, uint64_t lpa, uint16_t word) {
    const uint16_t before = m->volumes[volume_index].tbl[lpa];
    change(m, {datum_kind::tbl_entry, volume_index, lpa}, {before, 0}, {word, 0});
}

void set_fri(model* m, size_t volume_index, uint64_t group, const fri_entry& entry) {
    const uint64_t before = word_of(m->volumes[volume_index].fri[group]);
    change(m, {datum_kind::fri_entry, volume_index, group}, {before, 0}, {word_of(entry), 0});
}

void set_fri_counters(model* m, size_t volume_index, uint64_t free_count, uint64_t group_head) {
    const volume& vol = m->volumes[volume_index];
    change(m, {datum_kind::fri_counters, volume_index, 0}, {vol.free_count, vol.group_head},
           {free_count, group_head});
}

void set_map(model* m, size_t map_index, uint64_t lea, uint64_t word) {
    const uint64_t before = m->maps[map_index].entries[lea];
    change(m, {datum_kind::map_entry, map_index, lea}, {before, 0}, {word, 0});
}

void set_mapped_count(model* m, size_t map_index, uint64_t count) {
    const uint64_t before = m->maps[map_index].mapped_count;
    change(m, {datum_kind::map_count, map_index, 0}, {before, 0}, {count, 0});
}

void reach_group(volume* vol, uint64_t group) {
    if (group >= vol->fri.size()) {
        vol->fri.resize(group + 1, fri_entry{});
        vol->tbl.resize((group + 1) * TBL_GROUP_ENTRIES, 0);
    }
}

void put_datum(model* m, const datum& where, const datum_value& value) {
    switch (where.kind) {
        case datum_kind::tbl_entry:
            m->volumes[where.file].tbl[where.key] = static_cast<uint16_t>(value[0]);
            break;
        case datum_kind::fri_entry:
            m->volumes[where.file].fri[where.key] = entry_of(value[0]);
            break;
        case datum_kind::fri_counters:
            m->volumes[where.file].free_count = value[0];
            m->volumes[where.file].group_head = value[1];
            break;
        case datum_kind::map_entry:
            m->maps[where.file].entries[where.key] = value[0];
            break;
        case datum_kind::map_count:
            m->maps[where.file].mapped_count = value[0];
            break;
    }
}

void undo_writes(model* m, uint64_t commit) {
    while (!m->writes.empty() && m->writes.back().commit == commit) {
        put_datum(m, m->writes.back().where, m->writes.back().before);
        m->writes.pop_back();
    }
}

void settle_writes(model* m) {
    const auto durable = [m](const metadata_write& write) {
        return write.commit + m->journal.budget <= m->journal.commits;
    };
    const auto first_kept = std::find_if_not(m->writes.begin(), m->writes.end(), durable);
    m->writes.erase(m->writes.begin(), first_kept);
}

}  // namespace lab
