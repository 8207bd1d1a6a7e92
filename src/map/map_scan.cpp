#include "map/map_scan.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <new>

#include "map/map_file.h"
#include "print.h"
#include "store/crc32c.h"
#include "store/descriptor.h"
#include "store/file.h"
#include "store/log.h"

static constexpr uint32_t RUN_NODES = 256;  // of one read: 128 KiB, which stay in the nearer caches
// Of the first read after a hole: what lies between holes may be short. Later ones grow.
static constexpr uint64_t ISLAND_NODES = 16;

int tarn_map_data_node_check(uint64_t node_num) {
    if (current_map.fd == 0) {
        log_err("map file descriptor is invalid\n");
        return -1;
    }
    return tarn_cache_node_load(&current_map.cache, current_map.fd, node_num);
}

int tarn_map_data_node_check_and_repair(uint64_t node_num) {
    int result = tarn_map_data_node_check(node_num);
    if (result < 1) {
        return result;
    }
    if (tarn_cache_node_zero(&current_map.cache, current_map.fd) < 0) {
        log_err("tarn_cache_node_flush is failed\n");
        result = -1;
    }
    printf("TARN_INFO: repair: node_num(%llu)\n", ull(node_num));  // even if it failed
    return result;
}

// The nodes of a scan in runs.
struct run_reader {
    int fd;
    uint64_t next;       // node that the next run begins at
    uint64_t end;        // nodes of the scan that a file can have
    uint64_t file_size;  // bytes
    uint64_t count;      // nodes of the present run
    uint64_t most;       // nodes of the next run that is read, at most
    bool in_hole;        // the run lies in a hole; else its nodes are in memory
    bool may_be_hole;  // a hole may begin at `next`: nothing is known, or the node before is blank
    alignas(64) data_node nodes[RUN_NODES];
};

enum class run_result { run, end, failed };

// Null when there is no memory, or the file's size is unknown.
static std::unique_ptr<run_reader> open_runs(const map_range& range) {
    const int64_t size = io_size(range.fd);
    std::unique_ptr<run_reader> runs(size < 0 ? nullptr : new (std::nothrow) run_reader);
    if (runs != nullptr) {
        runs->fd = range.fd;
        runs->next = 0;
        runs->end = std::min(range.nodes, DATA_NODE_NUM_END);
        runs->file_size = static_cast<uint64_t>(size);
        runs->may_be_hole = true;
        runs->most = RUN_NODES;
    }
    return runs;
}

// Node that holds byte `offset`; the first one for bytes before them all.
static uint64_t node_at(uint64_t offset) {
    return offset < METADATA_DATA_OFFSET ? 0 : offset / DATA_NODE_SIZE - DATA_NODE_BASE;
}

// First node from runs->next on that is not wholly in a hole; runs->end if all are. To ask where a
// stretch of data ends costs a look at every page of it, so a hole is asked for after a blank node.
static uint64_t next_data_node(run_reader* runs) {
    const uint64_t offset = data_node_offset(runs->next);
    if (offset >= runs->file_size) {
        return runs->end;
    }
    if (!runs->may_be_hole) {
        return runs->next;
    }
    const uint64_t data = io_next_data(runs->fd, offset, runs->file_size);
    return data >= runs->file_size ? runs->end : std::min(node_at(data), runs->end);
}

// The run from runs->next on, which stays where it is.
static run_result read_run(run_reader* runs) {
    if (runs->next >= runs->end) {
        return run_result::end;
    }
    const uint64_t data = next_data_node(runs);
    runs->in_hole = data > runs->next;
    if (runs->in_hole) {
        runs->most = ISLAND_NODES;
        runs->count = data - runs->next;
        return run_result::run;
    }
    const uint64_t stored = node_at(runs->file_size - 1) + 1 - runs->next;
    runs->count = std::min({stored, runs->end - runs->next, runs->most});
    if (!read_fd_run(runs->fd, runs->nodes, data_node_offset(runs->next),
                     runs->count * sizeof(data_node))) {
        return run_result::failed;
    }
    runs->may_be_hole = data_node_is_blank(&runs->nodes[runs->count - 1]);
    runs->most = std::min(2 * runs->most, uint64_t{RUN_NODES});
    return run_result::run;
}

static map_step show_hole(const run_reader* runs, const map_range& range, map_visitor* visitor) {
    static constexpr data_node empty{};
    if (range.ends_at_unmapped) {
        return visitor->node({runs->next, &empty});
    }
    visitor->blank_nodes(runs->next, runs->next + runs->count);
    return map_step::go_on;
}

// A stored checksum of 0 means that the node has no checksum.
static map_step show_run(const run_reader* runs, map_visitor* visitor) {
    static constexpr uint64_t SUMMED_AHEAD = 16;  // nodes: their bytes are near when they are shown
    uint32_t computed[SUMMED_AHEAD] = {};
    map_step step = map_step::go_on;
    for (uint64_t i = 0; i < runs->count && step == map_step::go_on; i++) {
        const data_node* node = &runs->nodes[i];
        if (i % SUMMED_AHEAD == 0) {
            tarn_crc32c_blocks(node, std::min(SUMMED_AHEAD, runs->count - i), computed);
        }
        const bool good = node->checksum == 0 || node->checksum == computed[i % SUMMED_AHEAD];
        step = visitor->node({runs->next + i, good ? node : nullptr});
    }
    return step;
}

// The bulk path: up to the first run that cannot be read. Stores the node after the last one shown.
static map_step show_runs(const map_range& range, map_visitor* visitor, uint64_t* next) {
    const std::unique_ptr<run_reader> runs = open_runs(range);
    *next = 0;
    if (runs == nullptr) {
        return map_step::go_on;
    }
    map_step step = map_step::go_on;
    while (step == map_step::go_on && read_run(runs.get()) == run_result::run) {
        step =
            runs->in_hole ? show_hole(runs.get(), range, visitor) : show_run(runs.get(), visitor);
        runs->next += runs->count;
    }
    *next = runs->next;
    return step;
}

// Data nodes that the file has bytes of. The nodes after them have no entry.
static uint64_t stored_nodes(int fd) {
    const int64_t size = io_size(fd);
    if (size < 0) {
        return DATA_NODE_NUM_END;  // unknown: every node is read
    }
    const uint64_t bytes = static_cast<uint64_t>(size);
    return bytes <= METADATA_DATA_OFFSET
               ? 0
               : (bytes - METADATA_DATA_OFFSET + DATA_NODE_SIZE - 1) / DATA_NODE_SIZE;
}

// The single-entry path from `node` on. A node that no file can have is not blank: its read fails.
static map_step show_by_entries(const map_range& range, map_visitor* visitor, uint64_t node) {
    const uint64_t blank_begin = stored_nodes(range.fd);
    const uint64_t blank_end = std::min(range.nodes, DATA_NODE_NUM_END);
    map_step step = map_step::go_on;
    while (node < range.nodes && step == map_step::go_on) {
        if (node == blank_begin && node < blank_end && !range.ends_at_unmapped) {
            visitor->blank_nodes(node, blank_end);
            node = blank_end;
        } else {
            step = visitor->node({node, nullptr});
            node++;
        }
    }
    return step;
}

bool for_each_map_node(const map_range& range, map_visitor* visitor) {
    uint64_t next = 0;
    map_step step = show_runs(range, visitor, &next);
    if (step == map_step::go_on) {
        step = show_by_entries(range, visitor, next);
    }
    return step != map_step::failed;
}
