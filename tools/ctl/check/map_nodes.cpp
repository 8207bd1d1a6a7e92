#include "ctl/check/map_nodes.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "ctl/check/maps.h"
#include "map/map_scan.h"

namespace {

class node_shower : public map_visitor {
public:
    node_shower(const map_check* map, int fd, const map_node_taker& take, map_reading* reading,
                progress_part* progress)
        : ends_at_blank_(map->file->kind == MAP_KIND_UNMAP_BUFFER),
          end_(map->entries),
          fd_(fd),
          take_(take),
          reading_(reading),
          progress_(progress) {}

    void blank_nodes(uint64_t first, uint64_t) override {
        if (ends_at_blank_) {
            end_ = std::min(end_, first * MAP_NODE_ENTRIES);
        }
    }
    map_step node(const map_scan_node& node) override;

private:
    void cut_at_blank(map_node_view* view);

    bool ends_at_blank_;
    uint64_t end_;  // after the last lea that counts
    int fd_;
    const map_node_taker& take_;
    map_reading* reading_;
    progress_part* progress_;
    data_node own_ = {};
};

void node_shower::cut_at_blank(map_node_view* view) {
    for (uint32_t slot = 0; slot < view->entries; slot++) {
        const map_entry entry = entry_of(*view, slot);
        if (map_entry_is_mapped(&entry) == 0) {
            view->entries = slot;
            end_ = view->first_lea + slot;
            return;
        }
    }
}

map_step node_shower::node(const map_scan_node& node) {
    progress_->reached(node.number);
    const uint64_t first = node.number * MAP_NODE_ENTRIES;
    if (first >= end_) {
        return map_step::finished;
    }
    map_node_view view = {first, static_cast<uint32_t>(std::min(MAP_NODE_ENTRIES, end_ - first)),
                          node.bytes, false};
    if (view.bytes == nullptr) {
        const int error = read_node_alone(fd_, node.number, &own_, &view.damaged);
        if (error != 0) {
            reading_->error = reading_->error == 0 ? error : reading_->error;
            reading_->unread++;
            return map_step::go_on;
        }
        view.bytes = &own_;
    }
    reading_->damaged += view.damaged ? 1 : 0;
    if (ends_at_blank_) {
        cut_at_blank(&view);
    }
    if (view.entries > 0) {
        take_(view);
    }
    return map_step::go_on;
}

}  // namespace

map_reading read_map_nodes(const map_check& map, const map_node_taker& take,
                           progress_line* progress) {
    map_reading reading;
    const int opened = io_open(map.file->path.c_str(), O_RDONLY | O_NONBLOCK, 0);
    if (opened <= 0) {
        reading.error = errno;
        reading.unread = ~uint64_t{0};
        return reading;
    }
    const scoped_fd fd(opened);
    progress_part part(progress, map_words(map), scan_blocks(map));
    node_shower shower(&map, opened, take, &reading, &part);
    (void)for_each_map_node({opened, map_node_count(map.entries), false}, &shower);
    return reading;
}
