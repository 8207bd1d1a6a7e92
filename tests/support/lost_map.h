// Closes the current map during a scan, entry by entry: nothing else can fail between a node and
// its first entry, since the node is in memory by then.
#pragma once

#include <cstdint>
#include <gtest/gtest.h>
#include <utility>

#include "map/map_file.h"
#include "store/data_node.h"
#include "store/descriptor.h"
#include "support/fault_hook.h"

// Alive: the map is closed once its `nodes`-th node was read or written. At the end it is open
// again.
class lost_map {
public:
    explicit lost_map(uint64_t nodes, io_call transfer = io_call::read) : hook_(lose) {
        left = nodes;
        counted = transfer;
        fd = 0;
    }
    ~lost_map() {
        EXPECT_NE(fd, 0);
        current_map.fd = fd;
    }
    lost_map(const lost_map&) = delete;
    lost_map& operator=(const lost_map&) = delete;

private:
    static io_verdict lose(io_call call, size_t wanted) {
        if (call == counted && wanted == DATA_NODE_SIZE && current_map.fd != 0 && --left == 0) {
            fd = std::exchange(current_map.fd, 0);
        }
        return {0, wanted};
    }
    static inline uint64_t left;
    static inline io_call counted;
    static inline int fd;
    fault_hook hook_;
};
