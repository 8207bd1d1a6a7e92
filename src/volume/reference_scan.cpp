#include "volume/reference_scan.h"

#include <algorithm>
#include <fcntl.h>
#include <new>

#include "map/map_scan.h"
#include "platform.h"
#include "store/descriptor.h"
#include "store/file.h"
#include "store/meta_node.h"
#include "volume/stop_signals.h"

constexpr uint64_t ALL_ONES = ~uint64_t{0};  // no count of a map

// A map in hand.
struct open_map {
    int fd;
    map_header header;
};

// Opens the file as an import does, and reads its header. False: it cannot be opened, or something
// about the header is to be reported.
static bool open_quietly(const char* path, open_map* map) {
    const int fd = io_open(path, O_RDWR, 0);
    if (fd <= 0) {
        return false;
    }
    map->fd = fd;
    meta_header header;
    meta_header_read(fd, &header);
    bool right = header.got >= sizeof header.bytes;
    auto* out = reinterpret_cast<uint8_t*>(&map->header);
    for (uint32_t i = 0; i < MAP_CONST_NODES + MAP_VAR_NODES; i++) {
        const uint32_t k = i < MAP_CONST_NODES
                               ? i
                               : static_cast<uint32_t>(META_VAR_NODE_BASE) + i - MAP_CONST_NODES;
        meta_node node;
        memcpy(&node, header.bytes + k * META_NODE_SIZE, sizeof node);
        right = right && meta_node_state(&node) == node_state::right;
        memcpy(out + i * META_NODE_SIZE, &node, sizeof node);
    }
    return right && map->header.map_magic_code == METADATA_MAGIC_CODE;
}

// How many entries an import of the map looks at. False: that is to be reported.
static bool size_map(const reference_scan* scan, const map_header* header, counted_map* map) {
    uint32_t size = 0;
    uint32_t shift = 0;
    map->count = header->map_total_count;
    map->mapped = header->map_mapped_count;
    if (map->count == ALL_ONES || map->mapped == ALL_ONES ||
        ORBAiSCSIVAAIExtentSizeAndShiftGet(scan->root, &size, &shift) < 0) {
        return false;
    }
    if (map->kind == MAP_KIND_ROD) {
        map->count = rod_entry_count(shift);
    }
    return true;
}

// Counts the nodes that a scan shows.
class reference_counter : public map_visitor {
public:
    reference_counter(reference_scan* scan, counted_map* map, int fd, uint64_t entries)
        : scan_(scan), map_(map), fd_(fd), entries_(entries) {}

    void blank_nodes(uint64_t, uint64_t) override {}
    map_step node(const map_scan_node& node) override;

    [[nodiscard]] uint64_t mapped() const { return mapped_; }

private:
    const data_node* bytes_of(const map_scan_node& node);

    reference_scan* scan_;
    counted_map* map_;
    int fd_;
    uint64_t entries_;
    uint64_t mapped_ = 0;
    data_node own_ = {};
};

// A node that is damaged counts as it is, and one that cannot be read in bulk is read alone. Null:
// it cannot be read.
const data_node* reference_counter::bytes_of(const map_scan_node& node) {
    if (node.bytes != nullptr) {
        return node.bytes;
    }
    own_ = {};
    const int got = read_fd(fd_, &own_, data_node_offset(node.number), sizeof own_);
    if (got < 0) {
        return nullptr;
    }
    scan_->unusual = scan_->unusual || mismatch_of(&own_).found;
    return &own_;
}

// Entries before the first unmapped one.
static uint32_t leading_mapped(const data_node* node, uint32_t entries) {
    uint32_t slot = 0;
    for (; slot < entries; slot++) {
        map_entry entry;
        memcpy(&entry, node->payload + slot * sizeof entry, sizeof entry);
        if (map_entry_is_mapped(&entry) == 0) {
            break;
        }
    }
    return slot;
}

map_step reference_counter::node(const map_scan_node& node) {
    const data_node* bytes = bytes_of(node);
    if (bytes == nullptr) {
        scan_->unread = true;
        return map_step::failed;
    }
    const uint64_t first = node.number * MAP_NODE_ENTRIES;
    const auto here = static_cast<uint32_t>(std::min(MAP_NODE_ENTRIES, entries_ - first));
    uint32_t entries = here;
    if (map_->kind == MAP_KIND_UNMAP_BUFFER) {
        entries = leading_mapped(bytes, here);
    }
    const node_references found = ref_counts_add_node(scan_->counts, bytes, entries);
    mapped_ += found.mapped;
    scan_->unusual = scan_->unusual || found.past_end;
    if (entries < here) {
        map_->looked_at = first + entries + 1;
        return map_step::finished;
    }
    return map_step::go_on;
}

// Entries of the map that come before the end of the counting.
static uint64_t entries_before_end(const reference_scan* scan, size_t number) {
    const uint64_t count = scan->maps[number].count;
    if (number < scan->end.map) {
        return count;
    }
    return number == scan->end.map ? std::min(count, scan->end.lea) : 0;
}

static void count_map(reference_scan* scan, size_t number, const open_map* open) {
    counted_map* map = &scan->maps[number];
    if (!size_map(scan, &open->header, map)) {
        scan->unusual = true;
        scan->unread = true;
        return;
    }
    map->looked_at = map->count;
    const uint64_t entries = entries_before_end(scan, number);
    const map_range range = {open->fd, map_node_count(entries), map->kind == MAP_KIND_UNMAP_BUFFER};
    reference_counter counter(scan, map, open->fd, entries);
    (void)for_each_map_node(range, &counter);  // what failed is noted
    scan->unusual = scan->unusual || counter.mapped() > map->mapped;
}

static void scan_map(reference_scan* scan, size_t number) {
    open_map open = {};
    if (open_quietly(scan->maps[number].path, &open)) {
        count_map(scan, number, &open);
    } else {
        scan->unusual = true;
        scan->unread = true;
    }
    if (open.fd > 0) {
        io_close(open.fd);
    }
}

bool reference_scan_open(reference_scan* scan, const path_entry* list, const char* only_map,
                         const char* root) {
    *scan = {nullptr, 0, root, REFERENCE_END, nullptr, 0, false, false};
    if (!io_allow(io_call::bulk)) {
        return false;
    }
    for (const path_entry* at = list->next; at != list; at = at->next) {
        scan->map_count++;
    }
    scan->maps = new (std::nothrow) counted_map[scan->map_count + 1];
    scan->counts = ref_counts_open();
    if (scan->maps == nullptr || scan->counts == nullptr) {
        reference_scan_close(scan);
        return false;
    }
    size_t number = 0;
    for (const path_entry* at = list->next; at != list; at = at->next) {
        scan->maps[number++] = {only_map != nullptr ? only_map : at->name,
                                static_cast<int32_t>(at->type), 0, 0, 0};
    }
    return true;
}

void reference_scan_close(reference_scan* scan) {
    ref_counts_close(scan->counts);
    delete[] scan->maps;
    scan->counts = nullptr;
    scan->maps = nullptr;
}

void reference_scan_restart(reference_scan* scan, reference_place end) {
    scan->end = end;
    scan->scans = 0;
    scan->unusual = false;
    scan->unread = false;
    ref_counts_restart(scan->counts);
}

bool reference_scan_next(reference_scan* scan) {
    if (!ref_counts_begin_scan(scan->counts)) {
        return false;
    }
    scan->scans++;
    const size_t end = std::min(scan->map_count, scan->end.map + (scan->end.lea != 0 ? 1 : 0));
    for (size_t number = 0; number < end && !scan->unread; number++) {
        if (stop_requested()) {
            scan->unread = true;
        } else {
            scan_map(scan, number);
        }
    }
    ref_counts_end_scan(scan->counts);
    return true;
}

// Looks for a reference to a group.
class reference_finder : public map_visitor {
public:
    explicit reference_finder(uint64_t group) : group_(group) {}

    void blank_nodes(uint64_t, uint64_t) override {}
    map_step node(const map_scan_node& node) override {
        for (uint64_t slot = 0; node.bytes != nullptr && slot < MAP_NODE_ENTRIES; slot++) {
            map_entry entry;
            memcpy(&entry, node.bytes->payload + slot * sizeof entry, sizeof entry);
            if (map_entry_is_mapped(&entry) != 0 &&
                tbl_group_of(map_entry_get_lpa(&entry)) == group_) {
                lea_ = node.number * MAP_NODE_ENTRIES + slot;
                found_ = true;
                return map_step::finished;
            }
        }
        return map_step::go_on;
    }
    [[nodiscard]] bool found() const { return found_; }
    [[nodiscard]] uint64_t lea() const { return lea_; }

private:
    uint64_t group_;
    uint64_t lea_ = 0;
    bool found_ = false;
};

bool find_reference(const reference_scan* scan, uint64_t group, uint64_t* lea) {
    for (size_t number = 0; number < scan->map_count; number++) {
        const int fd = io_open(scan->maps[number].path, O_RDONLY, 0);
        if (fd <= 0) {
            continue;
        }
        reference_finder finder(group);
        const map_range range = {fd, map_node_count(scan->maps[number].looked_at), false};
        (void)for_each_map_node(range, &finder);
        io_close(fd);
        if (finder.found()) {
            *lea = finder.lea();
            return true;
        }
    }
    return false;
}
