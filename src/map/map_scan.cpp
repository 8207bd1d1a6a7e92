#include "map/map_scan.h"

#include <algorithm>
#include <new>

#include "store/crc32c.h"
#include "store/descriptor.h"
#include "store/file.h"

map_scan* map_scan_open(int fd, uint64_t node_count) {
    const int64_t size = io_size(fd);
    if (size < 0) {
        return nullptr;
    }
    auto* scan = new (std::nothrow) map_scan;
    if (scan != nullptr) {
        scan->fd = fd;
        scan->next = 0;
        scan->end = std::min(node_count, DATA_NODE_NUM_END);
        scan->file_size = static_cast<uint64_t>(size);
        scan->data_end = 0;
    }
    return scan;
}

void map_scan_close(map_scan* scan) {
    delete scan;
}

// Node that holds byte `offset`; the first one for bytes before them all.
static uint64_t node_at(uint64_t offset) {
    return offset < METADATA_DATA_OFFSET ? 0 : offset / DATA_NODE_SIZE - DATA_NODE_BASE;
}

// First node from scan->next on that is not wholly in a hole; scan->end when there is none.
static uint64_t next_data_node(map_scan* scan) {
    const uint64_t offset = data_node_offset(scan->next);
    if (offset >= scan->file_size) {
        return scan->end;
    }
    if (offset < scan->data_end) {
        return scan->next;
    }
    const uint64_t data = io_next_data(scan->fd, offset, scan->file_size);
    if (data >= scan->file_size) {
        return scan->end;
    }
    scan->data_end = std::max(io_next_hole(scan->fd, data, scan->file_size), data + 1);
    return std::min(node_at(data), scan->end);
}

map_scan_result map_scan_next(map_scan* scan, map_scan_run* run) {
    if (scan->next >= scan->end) {
        return map_scan_result::end;
    }
    const uint64_t data = next_data_node(scan);
    if (data > scan->next) {
        *run = {scan->next, data - scan->next, nullptr, nullptr};
        scan->next = data;
        return map_scan_result::run;
    }
    const uint64_t data_nodes = node_at(scan->data_end - 1) + 1 - scan->next;
    const uint64_t count = std::min({data_nodes, scan->end - scan->next, uint64_t{MAP_SCAN_NODES}});
    if (!read_fd_run(scan->fd, scan->nodes, data_node_offset(scan->next),
                     count * sizeof(data_node))) {
        return map_scan_result::failed;
    }
    tarn_crc32c_blocks(scan->nodes, count, scan->computed);
    *run = {scan->next, count, scan->nodes, scan->computed};
    scan->next += count;
    return map_scan_result::run;
}
