#include "files.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "map/map_format.h"
#include "metadata.h"
#include "store/crc32c.h"
#include "store/meta_node.h"

[[noreturn]] static void give_up(const std::string& what) {
    perror(what.c_str());
    exit(1);
}

int create(const std::string& path, uint64_t size) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
        give_up(path);
    }
    return fd;
}

void write_all(int fd, const void* bytes, size_t len, uint64_t offset) {
    if (pwrite(fd, bytes, len, static_cast<off_t>(offset)) != static_cast<ssize_t>(len)) {
        give_up("write");
    }
}

void write_header(int fd, void* header, uint64_t const_nodes, uint64_t var_nodes) {
    auto* node = static_cast<meta_node*>(header);
    for (uint64_t i = 0; i < const_nodes + var_nodes; i++, node++) {
        node->checksum = 0;
        uint32_t checksum = 0;
        tarn_crc32c(node, sizeof *node, &checksum);
        node->checksum = checksum;
        const uint64_t index = i < const_nodes ? i : META_VAR_NODE_BASE + i - const_nodes;
        write_all(fd, node, sizeof *node, index * META_NODE_SIZE);
    }
}

int create_map(const std::string& path, const uint8_t* uuid, uint64_t entries, uint64_t mapped) {
    map_header header{};
    header.map_version = 1;
    header.map_magic_code = METADATA_MAGIC_CODE;
    header.map_type = FILE_TYPE_MAP;
    memcpy(header.map_uuid, uuid, UUID_SIZE);
    header.map_total_count = entries;
    header.map_mapped_count = mapped;
    header.map_pool_cnt = 1;
    uint32_t checksum = 0;
    tarn_crc32c(POOL_UUID, UUID_SIZE, &checksum);
    header.map_pool_cksum = checksum;
    const int fd = create(path, METADATA_DATA_OFFSET + map_node_count(entries) * DATA_NODE_SIZE);
    write_header(fd, &header, MAP_CONST_NODES, MAP_VAR_NODES);
    write_all(fd, POOL_UUID, UUID_SIZE, MAP_POOL_TABLE_OFFSET);
    return fd;
}
