#include "lab/live_disk.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lab/data_files.h"
#include "lab/disk.h"
#include "lab/file_bytes.h"
#include "lab/image.h"
#include "lab/pool_entries.h"

namespace lab {

live_disk start_disk(const std::string& directory, const model& m, random_stream order) {
    live_disk disk = {directory, order, {}, {}};
    for (const volume& vol : m.volumes) {
        disk.data_done.push_back(vol.taken.size());
    }
    return disk;
}

// Where a datum lies in the files, and its current bytes.
struct datum_bytes {
    std::string path;
    uint64_t offset;
    uint64_t words[2];
    size_t length;
};

static datum_bytes of_volume(const volume& vol, const datum& where) {
    if (where.kind == datum_kind::tbl_entry) {
        return {vol.root + "/@EP/EP_TBL", offset_of_tbl(where.key), {vol.tbl[where.key], 0}, 2};
    }
    const std::string index = vol.root + "/@EP/EP_FRI";
    if (where.kind == datum_kind::fri_counters) {
        const uint64_t offset = offset_of_field(offsetof(fri_header, fri_free_count));
        return {index, offset, {vol.free_count, vol.group_head}, 16};
    }
    datum_bytes entry = {index, offset_of_fri(where.key), {0, 0}, sizeof(fri_entry)};
    memcpy(entry.words, &vol.fri[where.key], sizeof(fri_entry));
    return entry;
}

static datum_bytes bytes_of(const model& m, const datum& where) {
    if (where.kind == datum_kind::map_entry) {
        const lun_map& map = m.maps[where.file];
        return {map.path, offset_of_map(where.key), {map.entries[where.key], 0}, 8};
    }
    if (where.kind == datum_kind::map_count) {
        const lun_map& map = m.maps[where.file];
        const uint64_t offset = offset_of_field(offsetof(map_header, map_mapped_count));
        return {map.path, offset, {map.mapped_count, 0}, 8};
    }
    return of_volume(m.volumes[where.file], where);
}

// Writes the datum as it is now, whatever older value was pending: that transaction is complete.
static bool write_datum(const live_disk& disk, const model& m, const datum& where) {
    const datum_bytes bytes = bytes_of(m, where);
    return put_sealed({disk.directory, bytes.path}, bytes.offset, bytes.words, bytes.length);
}

// Writes and forgets the pending writes that `chosen` picks.
template <class Choice>
static bool write_chosen(live_disk* disk, const model& m, const Choice& chosen) {
    std::vector<metadata_write> left;
    bool good = true;
    for (const metadata_write& write : disk->pending) {
        if (!chosen(write)) {
            left.push_back(write);
        } else {
            good = good && write_datum(*disk, m, write.where);
        }
    }
    disk->pending = std::move(left);
    return good;
}

bool write_oldest(live_disk* disk, const model& m) {
    const uint64_t next = m.journal.commits + 1;
    return write_chosen(disk, m, [&m, next](const metadata_write& write) {
        return write.commit + m.journal.budget <= next;
    });
}

bool write_some(live_disk* disk, const model& m) {
    constexpr unsigned PERCENTS[] = {0, 50, 50, 100};
    const unsigned percent = PERCENTS[random_below(&disk->order, std::size(PERCENTS))];
    return write_chosen(disk, m, [disk, percent](const metadata_write&) {
        return random_chance(&disk->order, percent);
    });
}

bool write_status(const live_disk& disk, const model& m) {
    const uint32_t status = m.journal.header.jnl_shutdown_tag;
    return put_sealed({disk.directory, JOURNAL_PATH},
                      offset_of_field(offsetof(jnl_header, jnl_shutdown_tag)), &status,
                      sizeof status);
}

// The fields of the variable node that names the newest transaction, from its id on.
static bool write_header(const live_disk& disk, const model& m) {
    constexpr size_t FIRST = offsetof(jnl_header, jnl_last_trans_id);
    constexpr size_t END = offsetof(jnl_header, unused3);
    uint8_t header[sizeof(jnl_header)];
    memcpy(header, &m.journal.header, sizeof header);
    return put_sealed({disk.directory, JOURNAL_PATH}, offset_of_field(FIRST), header + FIRST,
                      END - FIRST);
}

static bool write_blocks(const live_disk& disk, const model& m, const transaction& t,
                         uint64_t start) {
    for (uint64_t i = 0; i < t.blocks.size(); i++) {
        const uint64_t block = (start + i) % m.journal.blocks.size();
        if (!put_bytes({disk.directory, JOURNAL_PATH},
                       METADATA_DATA_OFFSET + block * sizeof(jnl_block), &t.blocks[i],
                       sizeof(jnl_block))) {
            return false;
        }
    }
    return true;
}

// Sometimes the header is on the disk before the record, but never that of the very first
// transaction: there would be nothing to step back to.
bool write_record(live_disk* disk, const model& m, const transaction& t, uint64_t start) {
    const bool header_first = random_chance(&disk->order, 25) && m.journal.commits > 1;
    const bool written = header_first ? write_header(*disk, m) && write_blocks(*disk, m, t, start)
                                      : write_blocks(*disk, m, t, start) && write_header(*disk, m);
    for (const metadata_write& write : m.writes) {
        if (write.commit == m.journal.commits) {
            disk->pending.push_back(write);
        }
    }
    return written;
}

static bool extend_file(const std::string& path, uint64_t size) {
    struct stat status = {};
    const bool good =
        stat(path.c_str(), &status) == 0 && (static_cast<uint64_t>(status.st_size) >= size ||
                                             truncate(path.c_str(), static_cast<off_t>(size)) == 0);
    return good || complain_of(path, strerror(errno));
}

bool extend_data_files(const live_disk& disk, const model& m) {
    for (const volume& vol : m.volumes) {
        for (size_t number = 0; number < DATA_FILES; number++) {
            if (!extend_file(disk.directory + "/" + data_path(vol, number),
                             data_file_size(vol, number))) {
                return false;
            }
        }
    }
    return true;
}

static bool write_extent(const live_disk& disk, const model& m, size_t volume_index, uint64_t lpa) {
    const volume& vol = m.volumes[volume_index];
    const extent_place place = place_of_extent(vol, lpa);
    for (const chunk& part : data_of(m, volume_index, lpa)) {
        if (!put_bytes({disk.directory, data_path(vol, place.file)}, place.offset + part.offset,
                       part.bytes.data(), part.bytes.size())) {
            return false;
        }
    }
    return true;
}

bool write_data(live_disk* disk, const model& m) {
    for (size_t i = 0; i < m.volumes.size(); i++) {
        const std::vector<uint64_t>& taken = m.volumes[i].taken;
        for (size_t& done = disk->data_done[i]; done < taken.size(); done++) {
            if (!write_extent(*disk, m, i, taken[done])) {
                return false;
            }
        }
    }
    return true;
}

map_paths paths_of(const model& m) {
    map_paths paths(m.maps.size());
    for (const volume& vol : m.volumes) {
        for (const size_t map : vol.maps) {
            paths[map] = m.maps[map].path;
        }
    }
    return paths;
}

// One of the two paths may be "".
static bool change_file(const live_disk& disk, const model& m, size_t map, const std::string& from,
                        const std::string& to) {
    if (from.empty()) {
        return create_file(disk.directory, image_of(m, {file_kind::map, map, 0}));
    }
    const std::string path = disk.directory + "/" + from;
    const std::string target = disk.directory + "/" + to;
    const int failed =
        to.empty() ? unlink(path.c_str())
                   : renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE);
    return failed == 0 || complain_of(path, strerror(errno));
}

bool change_files(const live_disk& disk, const model& m, const map_paths& before) {
    const map_paths now = paths_of(m);
    for (size_t map = 0; map < now.size(); map++) {
        const std::string from = map < before.size() ? before[map] : "";
        if (from != now[map] && !change_file(disk, m, map, from, now[map])) {
            return false;
        }
    }
    return true;
}

}  // namespace lab
