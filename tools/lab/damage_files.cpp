// Files that are gone, overwritten or cut short.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lab/damage_choice.h"
#include "lab/damage_kinds.h"
#include "lab/data_files.h"
#include "lab/disk.h"
#include "lab/image.h"
#include "print.h"

namespace lab {

static bool check_exists(const damage_site& site, const std::string& path) {
    struct stat status = {};
    const std::string full_path = site.directory + "/" + path;
    return lstat(full_path.c_str(), &status) == 0 || complain_of(full_path, strerror(errno));
}

static std::string remove_file(const damage_site& site, const std::string& path) {
    const std::string full_path = site.directory + "/" + path;
    if (!check_exists(site, path)) {
        return "";
    }
    if (unlink(full_path.c_str()) != 0) {
        (void)complain_of(full_path, strerror(errno));
        return "";
    }
    return path + ": removed";
}

std::string lose_index(damage_site* site) {
    return remove_file(*site, index_of(*site));
}

std::string lose_table(damage_site* site) {
    return remove_file(*site, table_of(*site));
}

std::string lose_both(damage_site* site) {
    if (!check_exists(*site, index_of(*site)) || !check_exists(*site, table_of(*site))) {
        return "";
    }
    const std::string index = remove_file(*site, index_of(*site));
    const std::string table = index.empty() ? "" : remove_file(*site, table_of(*site));
    return table.empty() ? "" : index + "; " + table;
}

// The number of table blocks that the sample may have written.
static uint64_t table_blocks(const damage_site& site) {
    const file_image table = image_of(*site.sample, {file_kind::tbl, site.volume, 0});
    return table.chunks.back().bytes.size() / DATA_NODE_SIZE;
}

std::string overwrite_table(damage_site* site) {
    const uint64_t blocks = table_blocks(*site);
    std::vector<uint64_t> noise(blocks * DATA_NODE_SIZE / sizeof(uint64_t));
    for (uint64_t& word : noise) {
        word = random_next(&site->random);
    }
    if (!put_bytes(*site, table_of(*site), METADATA_DATA_OFFSET, noise.data(),
                   noise.size() * sizeof(uint64_t))) {
        return "";
    }
    char text[128];
    (void)snprintf(text, sizeof text,
                   ": bytes %llu to %llu, blocks 0 to %llu: overwritten with noise",
                   ull(METADATA_DATA_OFFSET),
                   ull(METADATA_DATA_OFFSET + blocks * DATA_NODE_SIZE - 1), ull(blocks - 1));
    return table_of(*site) + text;
}

static std::string cut_file(const damage_site& site, const std::string& path, uint64_t size,
                            const std::string& lost) {
    const std::string full_path = site.directory + "/" + path;
    struct stat status = {};
    if (stat(full_path.c_str(), &status) != 0 ||
        truncate(full_path.c_str(), static_cast<off_t>(size)) != 0) {
        (void)complain_of(full_path, strerror(errno));
        return "";
    }
    char text[128];
    (void)snprintf(text, sizeof text, ": size %llu -> %llu, %s lies past the end",
                   ull(status.st_size), ull(size), lost.c_str());
    return path + text;
}

// Cuts the file at or before a mapped entry; the header stays intact.
std::string truncate_map(damage_site* site) {
    const map_place place = pick_mapped_place(site);
    if (place.path.empty()) {
        return "";
    }
    const uint64_t size =
        random_between(&site->random, METADATA_DATA_OFFSET, offset_of_map(place.lea));
    return cut_file(*site, place.path, size, "lea " + std::to_string(place.lea));
}

std::string lose_map(damage_site* site) {
    const map_place place = pick_mapped_place(site, LUN_SNAPSHOT_TRASH);
    return place.path.empty() ? "" : remove_file(*site, place.path);
}

// The size of a data file; 0 if it does not exist.
static uint64_t size_of_data(const damage_site& site, uint64_t number) {
    const std::string full_path = site.directory + "/" + data_path(volume_of(site), number);
    struct stat status = {};
    return stat(full_path.c_str(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

// The used extents that lie completely inside the last data file that has any.
static std::vector<uint64_t> last_data_extents(const damage_site& site, const pool_entries& pool,
                                               uint64_t* file) {
    const volume& vol = volume_of(site);
    const uint64_t room = extents_a_data_file(vol);
    std::vector<uint64_t> inside;
    for (const uint64_t lpa : used_extents(pool)) {
        const uint64_t end = METADATA_DATA_OFFSET + (lpa % room + 1) * vol.extent_size;
        if (end > size_of_data(site, lpa / room)) {
            continue;
        }
        if (lpa / room != *file) {
            inside.clear();
            *file = lpa / room;
        }
        inside.push_back(lpa);
    }
    return inside;
}

// Cuts the file on an extent boundary, at or before a used extent.
std::string cut_data_file(damage_site* site) {
    pool_entries pool;
    if (!read_pool(*site, &pool)) {
        return "";
    }
    uint64_t file = 0;
    const std::vector<uint64_t> extents = last_data_extents(*site, pool, &file);
    if (extents.empty()) {
        return refuse("no extent in use lies in a data file");
    }
    const volume& vol = volume_of(*site);
    const uint64_t lpa = pick(site, extents);
    const uint64_t kept = random_between(&site->random, 0, lpa % extents_a_data_file(vol));
    return cut_file(*site, data_path(vol, file), METADATA_DATA_OFFSET + kept * vol.extent_size,
                    "lpa " + std::to_string(lpa));
}

// Moves the last data file one number up, as if there had been one more and the last but one had
// been lost.
std::string skip_data_file(damage_site* site) {
    const volume& vol = volume_of(*site);
    uint64_t files = 0;
    while (size_of_data(*site, files) > 0) {
        files++;
    }
    if (files < 2) {
        return refuse("the volume has no second data file");
    }
    const std::string from = data_path(vol, files - 1);
    const std::string to = data_path(vol, files);
    const std::string full_path = site->directory + "/" + from;
    const std::string full_target = site->directory + "/" + to;
    if (renameat2(AT_FDCWD, full_path.c_str(), AT_FDCWD, full_target.c_str(), RENAME_NOREPLACE) !=
        0) {
        (void)complain_of(full_target, strerror(errno));
        return "";
    }
    return from + ": missing, renamed to " + to;
}

}  // namespace lab
