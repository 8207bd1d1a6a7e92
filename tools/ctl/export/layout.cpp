#include "ctl/export/layout.h"

#include <algorithm>
#include <cstring>

#include "ctl/check/map_nodes.h"
#include "ctl/text/escape.h"
#include "store/overlay.h"
#include "volume/dat_file.h"

// A data file, and the pool that it belongs to.
struct pool_file {
    uuid_bytes uuid;
    lun_data_file file;
    uint32_t shift;  // of its volume
};

// What table and index say their volume's pool is.
static std::vector<uuid_bytes> pools_of(const volume_check& volume) {
    std::vector<uuid_bytes> pools;
    if (volume.has_table && (volume.table_view.bad_nodes & 1) == 0) {
        pools.push_back(uuid_bytes_of(volume.table.tbl_uuid));
    }
    if (volume.has_index && (volume.index_view.bad_nodes & 1) == 0) {
        pools.push_back(uuid_bytes_of(volume.index.fri_uuid));
    }
    return pools;
}

// A data file says itself whose it is. One with a damaged header is taken for its volume's.
static void add_pool_file(const volume_check& volume, const view_data_file& data,
                          std::vector<pool_file>* files, std::vector<std::string>* warnings) {
    dat_header header = {};
    header_view view;
    (void)open_header(data.path, DAT_CONST_NODES, DAT_VAR_NODES, &header, &view);
    const lun_data_file file = {data.number, data.path};
    const metadata_head head = header.head;
    if (view.error == 0 && (view.bad_nodes & 1) == 0 && head.magic_code == METADATA_MAGIC_CODE) {
        files->push_back({uuid_bytes_of(head.uuid), file, volume.shift});
        return;
    }
    const std::vector<uuid_bytes> pools = pools_of(volume);
    if (!pools.empty()) {
        files->push_back({pools[0], file, volume.shift});
        warnings->push_back("The header of " + shown(data.path) +
                            " is damaged; it is taken for a data file of its volume.");
    }
}

static std::vector<pool_file> files_of(const check_state& state,
                                       std::vector<std::string>* warnings) {
    std::vector<pool_file> files;
    for (const volume_check& volume : state.volumes) {
        for (const view_data_file& data : volume.files->data_files) {
            add_pool_file(volume, data, &files, warnings);
        }
    }
    return files;
}

static bool is_known_pool(const check_state& state, const uuid_bytes& uuid) {
    return std::any_of(state.volumes.begin(), state.volumes.end(), [&](const volume_check& volume) {
        const std::vector<uuid_bytes> pools = pools_of(volume);
        return std::find(pools.begin(), pools.end(), uuid) != pools.end();
    });
}

// The data files of a pool, each number once: of two that claim to be the same, none is believed.
static std::vector<lun_data_file> files_in(const std::vector<pool_file>& files,
                                           const uuid_bytes& uuid,
                                           std::vector<std::string>* warnings) {
    std::vector<lun_data_file> found;
    for (const pool_file& one : files) {
        const auto twin = std::find_if(files.begin(), files.end(), [&](const pool_file& other) {
            return &other != &one && other.uuid == one.uuid && other.file.number == one.file.number;
        });
        if (one.uuid == uuid && twin == files.end()) {
            found.push_back(one.file);
        } else if (one.uuid == uuid) {
            warnings->push_back(shown(one.file.path) + " and " + shown(twin->file.path) +
                                " claim to be the same data file; neither is read.");
        }
    }
    return found;
}

static bool has_other_shift(const std::vector<pool_file>& files, const uuid_bytes& uuid,
                            uint32_t shift) {
    return std::any_of(files.begin(), files.end(), [&](const pool_file& one) {
        return one.uuid == uuid && one.shift != shift;
    });
}

static void add_rows(const check_state& state, const map_check& map, lun_layout* layout,
                     std::vector<std::string>* warnings) {
    const std::vector<pool_file> files = files_of(state, warnings);
    for (const uuid_bytes& uuid : map.pools) {
        std::vector<lun_data_file> found = files_in(files, uuid, warnings);
        const bool known = !found.empty() || is_known_pool(state, uuid);
        if (!known || has_other_shift(files, uuid, layout->shift)) {
            layout->volume_of_row.push_back(-1);
            continue;
        }
        layout->volume_of_row.push_back(static_cast<int>(layout->volumes.size()));
        layout->volumes.push_back(std::move(found));
    }
}

static void add_nodes_bad_on_disk(const map_check& map, std::vector<uint64_t>* bad) {
    const io_overlay_pause on_disk;
    (void)read_map_nodes(map, [bad](const map_node_view& node) {
        if (node.damaged) {
            bad->push_back(map_node_of(node.first_lea));
        }
    });
}

// The header knows how many entries are mapped. If some are missing, or the number is not known,
// and the file ends early, they were in the part that is gone.
static void compare_count(const map_check& map, lun_layout* layout,
                          std::vector<std::string>* warnings) {
    uint64_t mapped = 0;
    const map_reading reading = read_map_nodes(map, [&mapped](const map_node_view& node) {
        for (uint32_t slot = 0; slot < node.entries; slot++) {
            const map_entry entry = entry_of(node, slot);
            mapped += map_entry_is_mapped(&entry) != 0 ? 1 : 0;
        }
    });
    const uint64_t stored = map.header.map_mapped_count;
    const uint64_t data = map.view.file_size - std::min(map.view.file_size, METADATA_DATA_OFFSET);
    const bool known = (map.view.bad_nodes >> 2 & 1) == 0;
    if (known && stored <= mapped) {
        return;
    }
    layout->nodes_end = std::min(layout->nodes_end, data / DATA_NODE_SIZE);
    if (known && reading.damaged + reading.unread == 0) {
        warnings->push_back("The map counts " + std::to_string(stored) + " mapped extents, but " +
                            std::to_string(mapped) + " were found.");
    }
}

lun_layout layout_of(const check_state& state, const volume_check& volume, const map_check& map,
                     std::vector<std::string>* warnings) {
    lun_layout layout = {
        map.file->path, map.entries, volume.shift, map_node_count(map.entries), {}, {}, {}};
    if (io_overlay_on != nullptr) {
        add_nodes_bad_on_disk(map, &layout.bad_nodes);
    }
    compare_count(map, &layout, warnings);
    add_rows(state, map, &layout, warnings);
    return layout;
}
