// Sound files that do not belong where they are: another map, an earlier state of a map, the
// journal of another server, a map in no place for maps.
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <set>

#include "lab/bytes.h"
#include "lab/damage_choice.h"
#include "lab/damage_kinds.h"
#include "lab/disk.h"
#include "lab/image.h"
#include "lab/maps.h"
#include "lab/sample.h"
#include "print.h"

namespace lab {

// Addresses at which two maps hold different words.
static std::vector<uint64_t> different_leas(const std::vector<uint64_t>& a,
                                            const std::vector<uint64_t>& b) {
    std::vector<uint64_t> leas;
    for (uint64_t lea = 0; lea < std::min(a.size(), b.size()); lea++) {
        if (a[lea] != b[lea]) {
            leas.push_back(lea);
        }
    }
    return leas;
}

static std::string first_difference(const std::vector<uint64_t>& leas,
                                    const std::vector<uint64_t>& from,
                                    const std::vector<uint64_t>& to) {
    char text[160];
    (void)snprintf(text, sizeof text,
                   "entries that differ: %zu, the first is lea %llu: %016llx -> %016llx",
                   leas.size(), ull(leas[0]), ull(from[leas[0]]), ull(to[leas[0]]));
    return text;
}

// `one` precedes `other` in the sample's list of maps.
static std::string exchange(const damage_site& site, const lun_map& one, const lun_map& other) {
    std::vector<uint64_t> from;
    std::vector<uint64_t> to;
    if (!read_entries(site, one, &from) || !read_entries(site, other, &to)) {
        return "";
    }
    const std::string a = site.directory + "/" + one.path;
    const std::string b = site.directory + "/" + other.path;
    if (renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) != 0) {
        (void)complain_of(a, strerror(errno));
        return "";
    }
    return one.path + ": exchanged with " + other.path + "; " +
           first_difference(different_leas(from, to), from, to);
}

static std::vector<size_t> lun_maps(const damage_site& site) {
    std::vector<size_t> luns;
    for (const size_t map : volume_of(site).maps) {
        if (site.sample->maps[map].role == map_role::lun) {
            luns.push_back(map);
        }
    }
    return luns;
}

// If one map has the same entries as all others, no two maps differ. So it is enough to compare the
// others with one map.
std::string swap_maps(damage_site* site) {
    const std::vector<size_t> luns = lun_maps(*site);
    const std::vector<lun_map>& maps = site->sample->maps;
    const size_t first = random_below(&site->random, luns.size());
    const size_t start = random_below(&site->random, luns.size());
    std::vector<uint64_t> words;
    if (!read_entries(*site, maps[luns[first]], &words)) {
        return "";
    }
    for (size_t i = 0; i < luns.size(); i++) {
        const size_t second = (start + i) % luns.size();
        std::vector<uint64_t> others;
        if (!read_entries(*site, maps[luns[second]], &others)) {
            return "";
        }
        if (words != others) {
            return exchange(*site, maps[luns[std::min(first, second)]],
                            maps[luns[std::max(first, second)]]);
        }
    }
    return refuse("no two LUN maps of the volume hold different entries");
}

// A map with an earlier state, its current entries, and the addresses at which they differ.
struct old_map {
    size_t map;
    std::vector<uint64_t> now;
    std::vector<uint64_t> leas;  // empty: nothing differs, or the file cannot be read
};

using lea_set = std::set<std::pair<size_t, uint64_t>>;  // number of the map, and an address of it

// The entries that a replay of the journal would restore.
static lea_set replayed_leas(const model& m) {
    lea_set leas;
    for (const metadata_write& write : m.writes) {
        if ((m.crashed || m.ran) && write.where.kind == datum_kind::map_entry) {
            leas.insert({write.where.file, write.where.key});
        }
    }
    return leas;
}

static bool outlives_replay(const lea_set& replayed, const old_map& old) {
    return std::any_of(old.leas.begin(), old.leas.end(), [&](uint64_t lea) {
        return replayed.count({old.map, lea}) == 0;
    });
}

// Finds the first map of the volume, starting with a random one, whose earlier entries differ and
// outlive a replay. Sets `readable` to false if a file cannot be read, and prints the reason.
static old_map pick_old_map(damage_site* site, const model& past, bool* readable) {
    const std::vector<size_t>& maps = volume_of(*site).maps;
    const lea_set replayed = replayed_leas(*site->sample);
    const size_t first = random_below(&site->random, maps.size());
    for (size_t i = 0; i < maps.size() && *readable; i++) {
        old_map old = {maps[(first + i) % maps.size()], {}, {}};
        if (old.map >= past.maps.size()) {
            continue;  // did not exist then
        }
        *readable = read_entries(*site, site->sample->maps[old.map], &old.now);
        old.leas = different_leas(old.now, past.maps[old.map].entries);
        if (*readable && outlives_replay(replayed, old)) {
            return old;
        }
    }
    return {0, {}, {}};
}

static std::string put_old_map(const damage_site& site, model past, const old_map& old) {
    constexpr uint64_t IN_NODE = offsetof(map_header, map_mapped_count) - 2 * META_NODE_SIZE;
    lun_map& map = past.maps[old.map];
    map.path = site.sample->maps[old.map].path;  // it may have moved to the trash since
    uint64_t count = 0;
    if (!get_bytes(site, map.path, offset_of_node(2) + IN_NODE, &count, sizeof count) ||
        !replace_file(site.directory, image_of(past, {file_kind::map, old.map, 0}))) {
        return "";
    }
    char text[128];
    (void)snprintf(text, sizeof text,
                   ": as it was after transaction %llu of %llu; mapped count: %llu -> %llu; ",
                   ull(past.journal.commits), ull(site.sample->journal.commits), ull(count),
                   ull(map.mapped_count));
    return map.path + text + first_difference(old.leas, old.now, map.entries);
}

// Tries a random earlier state, then the very first one, since which the most has changed.
std::string restore_old_map(damage_site* site) {
    const uint64_t commits = commits_of_make(*site->sample);
    const uint64_t moment = commits == 0 ? 0 : random_below(&site->random, commits);
    bool readable = true;
    for (const uint64_t after : {moment, uint64_t{0}}) {
        const model past = make_past(site->sample->sample, after);
        const old_map old = pick_old_map(site, past, &readable);
        if (!readable) {
            return "";
        }
        if (!old.leas.empty()) {
            return put_old_map(*site, past, old);
        }
    }
    return refuse(site->sample->crashed
                      ? "no map of the volume has old entries that would outlive a replay"
                      : "no map of the volume has ever had different entries");
}

// Another server whose last transaction is complete.
static model foreign_server(damage_site* site) {
    parameters other = site->sample->sample;
    other.seed = random_next(&site->random);
    other.seed += other.seed == site->sample->sample.seed ? 1 : 0;
    other.crash = false;
    return make_past(other, other.transactions);
}

std::string replace_journal(damage_site* site) {
    constexpr uint64_t IN_NODE = offsetof(jnl_header, jnl_shutdown_tag) - 2 * META_NODE_SIZE;
    constexpr uint64_t IN_HEAD = offsetof(metadata_head, uuid);
    if (site->sample->journal.commits == 0) {
        return refuse("the journal holds no block that check or replay reads");
    }
    uint32_t status = 0;
    uuid from;
    if (!get_bytes(*site, JOURNAL_PATH, offset_of_node(2) + IN_NODE, &status, sizeof status) ||
        !get_bytes(*site, JOURNAL_PATH, IN_HEAD, from.data(), from.size())) {
        return "";
    }
    model foreign = foreign_server(site);
    foreign.journal.header.jnl_shutdown_tag = status;
    if (!replace_file(site->directory, image_of(foreign, {file_kind::journal, 0, 0}))) {
        return "";
    }
    uuid to;
    memcpy(to.data(), foreign.journal.header.head.uuid, to.size());
    return std::string(JOURNAL_PATH) + ": byte " + std::to_string(IN_HEAD) +
           ", uuid: " + hex_of(from.data(), from.size()) + " -> " + hex_of(to.data(), to.size());
}

// Where nobody looks for maps: a name without "_Extent_", one that does not begin with "FAMILY_",
// and a directory that has no maps.
static std::string pick_orphan_path(damage_site* site) {
    constexpr const char* NAMES[] = {"/@iSCSITrg/LUN_old_", "/@Snapshot/OLD_FAMILY_",
                                     "/@EP/EP_MAP_"};
    const char* name = NAMES[random_below(&site->random, std::size(NAMES))];
    return volume_of(*site).root + name + std::to_string(site->sample->maps.size());
}

// A new map, empty and with its own uuid.
std::string add_orphan_map(damage_site* site) {
    model with_orphan = *site->sample;
    const size_t number = add_map(&with_orphan, site->volume, map_role::lun);
    lun_map& orphan = with_orphan.maps[number];
    orphan.path = pick_orphan_path(site);
    for (uint8_t& byte : orphan.id) {
        byte = static_cast<uint8_t>(random_next(&site->random));
    }
    if (!create_file(site->directory, image_of(with_orphan, {file_kind::map, number, 0}))) {
        return "";
    }
    return orphan.path + ": created, an empty map of " + std::to_string(orphan.entries.size()) +
           " entries with uuid " + hex_of(orphan.id.data(), orphan.id.size());
}

}  // namespace lab
