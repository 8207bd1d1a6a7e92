// Files that are gone, overwritten or cut short.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "lab/damage_choice.h"
#include "lab/damage_kinds.h"
#include "lab/disk.h"
#include "lab/image.h"
#include "print.h"

namespace lab {

static bool stands(const damage_site& site, const std::string& path) {
    struct stat status = {};
    const std::string whole = site.directory + "/" + path;
    return lstat(whole.c_str(), &status) == 0 || complain_of(whole, strerror(errno));
}

static std::string remove_file(const damage_site& site, const std::string& path) {
    const std::string whole = site.directory + "/" + path;
    if (!stands(site, path)) {
        return "";
    }
    if (unlink(whole.c_str()) != 0) {
        (void)complain_of(whole, strerror(errno));
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
    if (!stands(*site, index_of(*site)) || !stands(*site, table_of(*site))) {
        return "";
    }
    const std::string index = remove_file(*site, index_of(*site));
    const std::string table = index.empty() ? "" : remove_file(*site, table_of(*site));
    return table.empty() ? "" : index + "; " + table;
}

// As far as the sample ever wrote to the table.
static uint64_t table_blocks(const damage_site& site) {
    const file_image table = image_of(*site.sample, {file_kind::tbl, site.volume, 0});
    return table.chunks.back().bytes.size() / DATA_NODE_SIZE;
}

std::string drown_table(damage_site* site) {
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

// Cuts the file somewhere in front of a mapped entry; the header stays whole.
std::string truncate_map(damage_site* site) {
    const map_place place = pick_mapped_place(site);
    if (place.path.empty()) {
        return "";
    }
    const std::string whole = site->directory + "/" + place.path;
    const uint64_t size =
        random_between(&site->random, METADATA_DATA_OFFSET, offset_of_map(place.lea));
    struct stat status = {};
    if (stat(whole.c_str(), &status) != 0 ||
        truncate(whole.c_str(), static_cast<off_t>(size)) != 0) {
        (void)complain_of(whole, strerror(errno));
        return "";
    }
    char text[128];
    (void)snprintf(text, sizeof text, ": size %llu -> %llu, lea %llu lies behind the end",
                   ull(status.st_size), ull(size), ull(place.lea));
    return place.path + text;
}

}  // namespace lab
