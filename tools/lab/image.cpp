#include "lab/image.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "lab/bytes.h"
#include "lab/data_files.h"

namespace lab {

constexpr uint32_t CREATE_TIME = 1690000000;
constexpr uint32_t FILE_TYPE_DATA = 6;                               // never read
constexpr uint32_t FILE_TYPE_JNL = 5;                                // never read
constexpr uint64_t NODE_AREA = META_VAR_NODE_BASE * META_NODE_SIZE;  // where variable nodes begin
constexpr uint64_t GAP_IN_CONST_AREA = 1024;  // bytes of the header area outside all nodes
constexpr uint64_t GAP_IN_VAR_AREA = 6144;
constexpr size_t GAP_SIZE = 48;
constexpr size_t DECOYS = 2;  // files among the maps that are not maps
constexpr size_t CHECKSUM_OFFSET = DATA_NODE_SIZE - sizeof(uint32_t);
constexpr size_t RESERVED_OFFSET = 504;  // four reserved bytes of a block

// Seals every node of a header and adds its constant and variable nodes.
template <typename Header>
static void add_header(file_image* image, const Header& header, size_t const_nodes, content kind) {
    std::vector<uint8_t> bytes(sizeof header);
    memcpy(bytes.data(), &header, sizeof header);
    for (size_t at = 0; at < bytes.size(); at += META_NODE_SIZE) {
        memset(&bytes[at], 0, sizeof(uint32_t));
        const uint32_t checksum = checksum_of(&bytes[at], META_NODE_SIZE);
        memcpy(&bytes[at], &checksum, sizeof checksum);
    }
    const auto variable = bytes.begin() + static_cast<std::ptrdiff_t>(const_nodes * META_NODE_SIZE);
    image->chunks.push_back({0, kind, {bytes.begin(), variable}});
    if (variable != bytes.end()) {
        image->chunks.push_back({NODE_AREA, kind, {variable, bytes.end()}});
    }
}

// Adds noise between the nodes, which must stay unchanged, to half of the files.
static void add_gaps(file_image* image, uint64_t noise) {
    if (scramble(noise, 1) % 2 == 0) {
        const auto after_constant = image->chunks.begin() + 1;
        image->chunks.insert(after_constant, {GAP_IN_CONST_AREA, content::bytes,
                                              noise_bytes(scramble(noise, 2), GAP_SIZE)});
        image->chunks.push_back(
            {GAP_IN_VAR_AREA, content::bytes, noise_bytes(scramble(noise, 3), GAP_SIZE)});
    }
}

static void add_noise(std::vector<uint8_t>* blocks, uint64_t noise, uint64_t noisy_blocks) {
    const uint64_t count = std::min<uint64_t>(noisy_blocks, blocks->size() / DATA_NODE_SIZE);
    for (uint64_t block = 0; block < count; block++) {
        const uint64_t word = scramble(noise, block);
        if (word % 4 == 0) {
            const auto bytes = static_cast<uint32_t>(word >> 32);
            memcpy(&(*blocks)[block * DATA_NODE_SIZE + RESERVED_OFFSET], &bytes, sizeof bytes);
        }
    }
}

// An all-zero block stays like unwritten space: without a checksum.
static void seal_blocks(std::vector<uint8_t>* blocks) {
    const std::vector<uint8_t> empty(DATA_NODE_SIZE, 0);
    for (size_t at = 0; at < blocks->size(); at += DATA_NODE_SIZE) {
        uint8_t* block = &(*blocks)[at];
        if (memcmp(block, empty.data(), DATA_NODE_SIZE) != 0) {
            const uint32_t checksum = checksum_of(block, DATA_NODE_SIZE);
            memcpy(block + CHECKSUM_OFFSET, &checksum, sizeof checksum);
        }
    }
}

static file_image fri_image(const volume& vol) {
    file_image image = {vol.root + "/@EP/EP_FRI", FRI_FILE_SIZE, {}};
    fri_header header;
    memset(&header, 0, sizeof header);
    header.fri_version = FRI_VERSION;
    header.fri_magic_code = METADATA_MAGIC_CODE;
    header.fri_type = FILE_TYPE_FRI;
    memcpy(header.fri_uuid, vol.pool.data(), UUID_SIZE);
    header.fri_data_offset = METADATA_DATA_OFFSET;
    header.fri_create_time = CREATE_TIME;
    header.fri_entry_size = sizeof(fri_entry);
    header.fri_group_count = vol.group_count;
    header.fri_free_count = vol.free_count;
    header.fri_group_head = vol.group_head;
    add_header(&image, header, FRI_CONST_NODES, content::fri_header);
    add_gaps(&image, vol.noise);

    constexpr uint64_t NOISY_BLOCKS = 2;
    const uint64_t blocks = std::max(fri_block_of(vol.fri.size()) + 1, NOISY_BLOCKS);
    std::vector<uint8_t> bytes(blocks * DATA_NODE_SIZE, 0);
    for (uint64_t group = 0; group < vol.fri.size(); group++) {
        memcpy(&bytes[fri_block_of(group) * DATA_NODE_SIZE + fri_byte_in_block(group)],
               &vol.fri[group], sizeof(fri_entry));
    }
    add_noise(&bytes, scramble(vol.noise, 10), NOISY_BLOCKS);
    seal_blocks(&bytes);
    image.chunks.push_back({METADATA_DATA_OFFSET, content::fri_blocks, std::move(bytes)});
    return image;
}

static file_image tbl_image(const volume& vol) {
    file_image image = {vol.root + "/@EP/EP_TBL", TBL_FILE_SIZE, {}};
    tbl_header header;
    memset(&header, 0, sizeof header);
    header.tbl_version = TBL_VERSION;
    header.tbl_magic_code = METADATA_MAGIC_CODE;
    header.tbl_type = FILE_TYPE_TBL;
    memcpy(header.tbl_uuid, vol.pool.data(), UUID_SIZE);
    header.tbl_data_offset = METADATA_DATA_OFFSET;
    header.tbl_create_time = CREATE_TIME;
    header.tbl_extent_size = vol.extent_size;
    header.tbl_entry_size = sizeof(tbl_entry);
    header.tbl_total_count = TBL_TOTAL_COUNT;
    add_header(&image, header, TBL_CONST_NODES, content::tbl_header);
    add_gaps(&image, scramble(vol.noise, 20));

    const uint64_t blocks = std::max(tbl_block_of(vol.tbl.size()) + 1, vol.noisy_blocks);
    std::vector<uint8_t> bytes(blocks * DATA_NODE_SIZE, 0);
    for (uint64_t lpa = 0; lpa < vol.tbl.size(); lpa++) {
        memcpy(&bytes[tbl_block_of(lpa) * DATA_NODE_SIZE + tbl_byte_in_block(lpa)], &vol.tbl[lpa],
               sizeof(tbl_entry));
    }
    add_noise(&bytes, scramble(vol.noise, 21), vol.noisy_blocks);
    seal_blocks(&bytes);
    image.chunks.push_back({METADATA_DATA_OFFSET, content::tbl_blocks, std::move(bytes)});
    return image;
}

// Fields that no record carries are filled from the map's noise.
static map_header header_of(const lun_map& map) {
    map_header header;
    const std::vector<uint8_t> noise = noise_bytes(map.noise, sizeof header);
    memcpy(&header, noise.data(), sizeof header);
    header.map_version = 0x00010000;
    header.map_magic_code = METADATA_MAGIC_CODE;
    header.map_type = FILE_TYPE_MAP;
    memcpy(header.map_uuid, map.id.data(), UUID_SIZE);
    header.map_lb_size = 512;
    header.map_total_count = map.entries.size();
    header.map_mapped_count = map.mapped_count;
    header.map_pool_cnt = static_cast<uint32_t>(map.pools.size());
    header.map_pool_cksum = checksum_of(map.pools[0].data(), map.pools.size() * UUID_SIZE);
    return header;
}

static file_image map_image(const lun_map& map) {
    const uint64_t blocks = map_node_count(map.entries.size());
    file_image image = {map.path, METADATA_DATA_OFFSET + blocks * DATA_NODE_SIZE, {}};
    add_header(&image, header_of(map), MAP_CONST_NODES, content::map_header);
    add_gaps(&image, map.noise);
    std::vector<uint8_t> pools(map.pools.size() * UUID_SIZE);
    memcpy(pools.data(), map.pools[0].data(), pools.size());
    image.chunks.push_back({MAP_POOL_TABLE_OFFSET, content::bytes, std::move(pools)});

    std::vector<uint8_t> bytes(blocks * DATA_NODE_SIZE, 0);
    for (uint64_t lea = 0; lea < map.entries.size(); lea++) {
        memcpy(&bytes[map_node_of(lea) * DATA_NODE_SIZE + map_byte_in_node(lea)], &map.entries[lea],
               sizeof(map_entry));
    }
    add_noise(&bytes, scramble(map.noise, 30), blocks);
    seal_blocks(&bytes);
    image.chunks.push_back({METADATA_DATA_OFFSET, content::map_nodes, std::move(bytes)});
    return image;
}

// A header with the volume's uuid, and the data of the extents.
static file_image data_image(const model& m, const file_ref& file) {
    const volume& vol = m.volumes[file.index];
    struct [[gnu::packed]] data_header {
        metadata_head head;
        uint8_t second[META_NODE_SIZE];
    };
    file_image image = {data_path(vol, file.number), data_file_size(vol, file.number), {}, m.ran};
    data_header header;
    memset(&header, 0, sizeof header);
    header.head.version = 0x00010000;
    header.head.magic_code = METADATA_MAGIC_CODE;
    header.head.file_type = FILE_TYPE_DATA;
    memcpy(header.head.uuid, vol.pool.data(), UUID_SIZE);
    add_header(&image, header, 2, content::bytes);
    add_extents(m, file, &image);
    return image;
}

// A file among the maps whose name only resembles that of a map.
static file_image decoy_image(const volume& vol, size_t number) {
    const char* path = number == 0 ? "/@iSCSITrg/LUN_extent_0" : "/@Snapshot/MYFAMILY_0";
    file_image image = {vol.root + path, 100, {}};
    image.chunks.push_back({0, content::bytes, noise_bytes(scramble(vol.noise, 50 + number), 100)});
    return image;
}

static file_image journal_image(const ring& journal) {
    const uint64_t length = journal.blocks.size() * sizeof(jnl_block);
    file_image image = {JOURNAL_PATH, METADATA_DATA_OFFSET + length, {}};
    jnl_header header = journal.header;
    header.head.version = 0x00010000;
    header.head.file_type = FILE_TYPE_JNL;
    memset(header.unused1, 0x5A, sizeof header.unused1);
    memset(header.unused3, 0xA5, sizeof header.unused3);
    add_header(&image, header, JNL_CONST_NODES, content::jnl_header);
    std::vector<uint8_t> bytes(length);
    memcpy(bytes.data(), journal.blocks.data(), length);
    image.chunks.push_back({METADATA_DATA_OFFSET, content::bytes, std::move(bytes)});
    return image;
}

std::vector<file_ref> list_files(const model& m) {
    std::vector<file_ref> files;
    for (size_t i = 0; i < m.volumes.size(); i++) {
        files.push_back({file_kind::fri, i, 0});
        files.push_back({file_kind::tbl, i, 0});
        for (const size_t map_index : m.volumes[i].maps) {
            files.push_back({file_kind::map, map_index, 0});
        }
        for (size_t number = 0; number < DATA_FILES; number++) {
            files.push_back({file_kind::data, i, number});
        }
        for (size_t number = 0; number < DECOYS; number++) {
            files.push_back({file_kind::decoy, i, number});
        }
    }
    files.push_back({file_kind::journal, 0, 0});
    return files;
}

file_image image_of(const model& m, const file_ref& file) {
    switch (file.kind) {
        case file_kind::fri:
            return fri_image(m.volumes[file.index]);
        case file_kind::tbl:
            return tbl_image(m.volumes[file.index]);
        case file_kind::map:
            return map_image(m.maps[file.index]);
        case file_kind::data:
            return data_image(m, file);
        case file_kind::decoy:
            return decoy_image(m.volumes[file.index], file.number);
        case file_kind::journal:
            break;
    }
    return journal_image(m.journal);
}

}  // namespace lab
