#include "campaign/guide_judge.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <vector>

#include "map/map_format.h"
#include "store/data_node.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;

// Damage that only a copy repairs, so that the page may stop.
static const std::set<std::string> NEEDS_A_COPY = {
    "map-header-bit",     "map-lost",     "map-old",
    "data-file-cut",      "pool-table",   "maps-swapped",
    "no first data file", "no data file", "no buffer",
    "no copy map",        "far entry",    "far entry after a crash",
};

// What the rows followed so far have announced.
struct announced {
    std::set<std::string> nodes;  // maps of which damaged nodes are lost
    std::set<std::string> cuts;   // maps that lose their end
    bool journal = false;         // the loss of the journal's last transactions
    bool unseen = false;          // losses that cannot be found without a list
    bool old_map = false;         // the losses of an old map
    bool pools = false;           // a pool table that was not tested
    bool buffer = false;          // the unmap buffer is a new one
};

static announced announced_by(const guide_walk& walk) {
    announced all;
    for (const guide_move& move : walk.moves) {
        const auto says = [&](const char* words) {
            return move.row != nullptr && move.row->lost.find(words) != std::string::npos;
        };
        if (says("all 63 entries of that node")) {
            all.nodes.insert(move.about);
        } else if (says("every entry of that map behind the cut")) {
            all.cuts.insert(move.about);
        }
        all.journal |= says("what the journal's last transactions held");
        all.unseen |= says("what such a map or file has lost stays undetected");
        all.old_map |= says("unless a map is an old copy");
        all.pools |= says("a pool table, if one is damaged");
        all.buffer |= move.row != nullptr && move.row->recipe == "buffer";
    }
    return all;
}

// The part of an entry that a LUN sees: mapped, the row of its pool and the extent; or 0.
static constexpr uint64_t ENTRY_MASK = MAP_MAPPED_BIT | (uint64_t{0xFFF} << 48) | MAP_LPA_MASK;

static std::vector<uint64_t> entries_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    file.seekg(METADATA_DATA_OFFSET);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    std::vector<uint64_t> entries;
    for (size_t node = 0; node + DATA_NODE_SIZE <= bytes.size(); node += DATA_NODE_SIZE) {
        for (size_t slot = 0; slot < MAP_NODE_ENTRIES; slot++) {
            map_entry entry{};
            memcpy(&entry, &bytes[node + slot * sizeof entry], sizeof entry);
            entries.push_back(map_entry_is_mapped(&entry) == 0 ? 0 : entry.word & ENTRY_MASK);
        }
    }
    return entries;
}

// The bytes from the pool table to the first entry: nothing ever changes them.
static std::string pool_table_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string bytes(METADATA_DATA_OFFSET - MAP_POOL_TABLE_OFFSET, '\0');
    file.seekg(MAP_POOL_TABLE_OFFSET);
    file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

static uint64_t entry(const std::vector<uint64_t>& entries, size_t lea) {
    return lea < entries.size() ? entries[lea] : 0;
}

// Maps of LUNs, snapshots and the trash, and the copy map: paths below the root.
static std::vector<std::string> maps_in(const std::string& root) {
    std::vector<std::string> maps;
    for (const std::string volume : {"/volume1", "/volume2"}) {
        for (const char* directory : {"/@iSCSITrg", "/@Snapshot", "/@EP_trash"}) {
            for (const auto& file : fs::recursive_directory_iterator(root + volume + directory)) {
                const std::string path = file.path().string().substr(root.size());
                if (file.is_regular_file() && file.file_size() > METADATA_DATA_OFFSET) {
                    maps.push_back(path);
                }
            }
        }
        maps.push_back(volume + "/@EP/EP_ROD");
    }
    std::sort(maps.begin(), maps.end());
    return maps;
}

// "", or the first entry that is wrong without an announcement; entries that differ from the truth
// are added to `entries_lost`. Without the journal, entries stay as the crash left them.
static std::string judge_map(const std::string& path, const announced& all,
                             const guide_server& server, size_t* entries_lost) {
    const std::vector<uint64_t> right = entries_of(server.right() + path);
    const std::vector<uint64_t> crashed = entries_of(server.found() + path);
    const std::vector<uint64_t> now = entries_of(server.now() + path);
    size_t lost = 0;
    if (pool_table_of(server.right() + path) != pool_table_of(server.now() + path)) {
        *entries_lost += 1;
        if (!all.pools) {
            return path + ": its pool table is damaged";
        }
    }
    for (size_t lea = 0; lea < std::max(right.size(), now.size()); lea++) {
        const uint64_t is = entry(now, lea);
        if (is == entry(right, lea)) {
            continue;
        }
        *entries_lost += 1;
        if (all.journal && is == entry(crashed, lea)) {
            continue;
        }
        lost++;
        if (is != 0 || (!all.nodes.contains(path) && !all.cuts.contains(path))) {
            return path + ": lea " + std::to_string(lea) + " is wrong, " +
                   std::to_string(is & MAP_LPA_MASK) + " for " +
                   std::to_string(entry(right, lea) & MAP_LPA_MASK);
        }
    }
    // The seeds damage two nodes of a map at most.
    return lost > 2 * MAP_NODE_ENTRIES && !all.cuts.contains(path) ? path + ": too many are lost"
                                                                   : "";
}

// Losses that cannot be found without a list; the page announces them to operators without one.
static bool is_announced_loss(const guide_server& server, const announced& all) {
    const auto& done = server.done();
    const bool unseen = done.contains("map-lost") || done.contains("maps-swapped") ||
                        done.contains("map-old") || done.contains("data-file-cut") ||
                        done.contains("no data file");
    return (all.unseen && unseen) || (all.old_map && done.contains("map-old")) ||
           (all.pools && done.contains("pool-table"));
}

// The files of a work directory that belonged to the operator.
static bool has_notes(const std::string& volume) {
    return fs::exists(volume + "/@EP_FIX/notes") || fs::exists(volume + "/@EP_FIX.aside/notes");
}

static std::string judge_tables(guide_server* server) {
    for (const char* volume : {"/volume1", "/volume2"}) {
        server->set("V", volume);
        const std::string seen = server->type(
            "tarn --fullck --volpath $V >/dev/null && tarn --freeck --fripath $V/@EP/EP_FRI "
            "--tblpath $V/@EP/EP_TBL >/dev/null && [ ! -e $V/@EP_CHK ] && [ ! -e $V/@EP_FIX ] && "
            "echo sound");
        if (seen != "sound\n") {
            return std::string(volume) + " is not sound: " + seen.substr(0, seen.find('\n'));
        }
    }
    return "";
}

static std::string judge_done(const announced& all, const guide_trouble& trouble,
                              guide_server* server, size_t* entries_lost) {
    if (all.journal && !trouble.crash) {
        return "a loss is announced that cannot be";
    }
    if (trouble.situation == "work directory" && !has_notes(server->now() + "/volume1")) {
        return "the files of a work directory are gone";
    }
    if (trouble.known != knowledge::nothing && all.unseen) {
        return "there is a list, and it was not used";
    }
    if (fs::exists(server->now() + "/volume1/@EP_FIX.aside/swap")) {
        return "a repair that was cut was not finished";
    }
    const bool any_map_may_differ = is_announced_loss(*server, all);
    for (const std::string& path : maps_in(server->right())) {
        std::string wrong = judge_map(path, all, *server, entries_lost);
        if (!wrong.empty() && !any_map_may_differ) {
            return wrong;
        }
    }
    if (any_map_may_differ) {
        return judge_tables(server);
    }
    if (trouble.known == knowledge::fresh_copies && *entries_lost > 0) {
        return "entries are lost, and there are copies of this stop";
    }
    std::string wrong = judge_tables(server);
    const bool exact = all.nodes.empty() && all.cuts.empty() && !all.journal && !all.buffer;
    if (!wrong.empty() || !exact) {
        return wrong;
    }
    // The journal is not the data of any LUN: everything else is compared.
    fs::remove_all(server->now() + "/journal");
    fs::create_directory(server->now() + "/journal");
    if (fs::exists(server->right() + "/journal/EP_JNL")) {
        fs::copy(server->right() + "/journal/EP_JNL", server->now() + "/journal/EP_JNL");
    }
    const ran found = tarn_lab("verify " + server->now() + " --rebuilt");
    return found.status == 0 ? "" : found.text.substr(0, found.text.find('\n'));
}

// Whether the operator's copies repair everything that is wrong.
static bool has_what_it_needs(knowledge known, const std::set<std::string>& done) {
    static const std::set<std::string> by_old_copies = {"map-header-bit", "pool-table", "map-lost",
                                                        "no buffer", "no copy map"};
    static const std::set<std::string> by_none = {"no first data file", "no data file",
                                                  "data-file-cut"};
    return std::all_of(done.begin(), done.end(), [&](const std::string& what) {
        return known == knowledge::fresh_copies
                   ? !by_none.contains(what)
                   : known == knowledge::old_copies && by_old_copies.contains(what);
    });
}

// Index, table and maps as step 1 copied them, and as they were before.
static std::string judge_stop(const guide_trouble& trouble, guide_server* server) {
    const bool single = trouble.damage.size() + (trouble.situation.empty() ? 0 : 1) < 2;
    bool needed = !single;  // each of two troubles may hide the other
    for (const std::string& damage : server->done()) {
        needed |= NEEDS_A_COPY.contains(damage);
    }
    if (!needed || has_what_it_needs(trouble.known, server->done())) {
        return "needless stop";
    }
    for (const char* volume : {"/volume1", "/volume2"}) {
        const auto found = tree_of(server->found() + volume);
        if (tree_of(server->now() + volume) == found) {
            continue;
        }
        const auto kept = tree_of(server->keep() + volume);
        for (const auto& [path, line] : found) {
            const bool copied = path.find("EP_DAT_") == std::string::npos &&
                                path.find("@EP_FIX") == std::string::npos;
            if (copied && (!kept.contains(path) || kept.at(path) != line)) {
                return "stop, and the copies do not take back " + path;
            }
        }
        if (single) {
            return std::string("stop after ") + volume + " was written";
        }
    }
    return "";
}

verdict judge(const guide_walk& walk, const guide_trouble& trouble, guide_server* server) {
    verdict result = {walk.end, 0};
    if (walk.end == "done") {
        result.wrong = judge_done(announced_by(walk), trouble, server, &result.entries_lost);
    } else if (walk.end == "stop") {
        result.wrong = judge_stop(trouble, server);
    }
    return result;
}
