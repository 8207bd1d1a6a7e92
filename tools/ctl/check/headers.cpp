// Headers: checksums, magic codes, types, impossible fields, versions; and identities: uuids that
// ought to be the same, or ought not.
#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

#include "ctl/check/maps.h"
#include "platform.h"
#include "store/crc32c.h"
#include "volume/dat_file.h"

static std::string hex(uint64_t value) {
    char text[32];
    snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

static std::string uuid_text(const uint8_t* uuid) {
    char text[2 * UUID_SIZE + 1] = {};
    for (size_t i = 0; i < UUID_SIZE; i++) {
        snprintf(text + 2 * i, 3, "%02x", uuid[i]);
    }
    return text;
}

// A header that was read, and how its kind is.
struct header_case {
    const volume_check* volume;
    std::string file;  // below the root
    const header_view* view;
    uint32_t type;  // 0: not checked
    uint64_t data_offset;
};

static void check_nodes(check_state* state, const header_case& header, int const_nodes) {
    for (uint32_t i = 0; i < header.view->node_count; i++) {
        if ((header.view->bad_nodes >> i & 1) != 0) {
            add_finding(state, finding_code::H01, header.volume, header.file);
            finding* added = &state->findings.back();
            added->place = place_kind::byte;
            const uint64_t k = i < static_cast<uint32_t>(const_nodes)
                                   ? i
                                   : META_VAR_NODE_BASE + i - static_cast<uint32_t>(const_nodes);
            added->first = k * META_NODE_SIZE;
            added->count = META_NODE_SIZE;
        }
    }
}

static void check_head(check_state* state, const header_case& header, const metadata_head& head) {
    const bool magic = head.magic_code == METADATA_MAGIC_CODE;
    if (!magic || (header.type != 0 && head.file_type != header.type)) {
        add_finding(state, finding_code::H02, header.volume, header.file);
        finding* added = &state->findings.back();
        added->was = hex(magic ? head.file_type : head.magic_code);
        added->ought = hex(magic ? header.type : METADATA_MAGIC_CODE);
        added->detail = magic ? "Its type is not that of this file." : "It has no magic code.";
    }
    if (magic && (header.type == FILE_TYPE_TBL || header.type == FILE_TYPE_FRI) &&
        head.version != TBL_VERSION) {
        add_finding(state, finding_code::H04, header.volume, header.file);
        state->findings.back().was = hex(head.version);
        state->findings.back().ought = hex(TBL_VERSION);
    }
}

static void impossible(check_state* state, const header_case& header, const char* field,
                       uint64_t value) {
    add_finding(state, finding_code::H03, header.volume, header.file);
    state->findings.back().was = hex(value);
    state->findings.back().detail = std::string("Field ") + field + " cannot have this value.";
}

static bool is_extent_size(uint32_t size) {
    return std::has_single_bit(size) && size >= 1u << 9 && size <= 1u << 30;
}

// Nodes whose bytes cannot be trusted are reported, and their fields are not judged.
static bool node_is_bad(const header_case& header, uint32_t node) {
    return (header.view->bad_nodes >> node & 1) != 0;
}

static void check_table_fields(check_state* state, const header_case& header,
                               const tbl_header& table) {
    if (!node_is_bad(header, 0) && table.tbl_data_offset != METADATA_DATA_OFFSET) {
        impossible(state, header, "tbl_data_offset", table.tbl_data_offset);
    }
    if (node_is_bad(header, 1)) {
        return;
    }
    if (!is_extent_size(table.tbl_extent_size)) {
        impossible(state, header, "tbl_extent_size", table.tbl_extent_size);
    }
    if (table.tbl_entry_size != sizeof(tbl_entry)) {
        impossible(state, header, "tbl_entry_size", table.tbl_entry_size);
    }
    if (table.tbl_total_count > TBL_TOTAL_COUNT) {
        impossible(state, header, "tbl_total_count", table.tbl_total_count);
    }
}

static void check_index_fields(check_state* state, const header_case& header,
                               const fri_header& index) {
    if (!node_is_bad(header, 0) && index.fri_data_offset != METADATA_DATA_OFFSET) {
        impossible(state, header, "fri_data_offset", index.fri_data_offset);
    }
    if (!node_is_bad(header, 1)) {
        if (index.fri_entry_size != sizeof(fri_entry)) {
            impossible(state, header, "fri_entry_size", index.fri_entry_size);
        }
        if (index.fri_group_count > FRI_GROUP_CAPACITY) {
            impossible(state, header, "fri_group_count", index.fri_group_count);
        }
    }
    if (!node_is_bad(header, 2) && index.fri_free_count > TBL_TOTAL_COUNT) {
        impossible(state, header, "fri_free_count", index.fri_free_count);
    }
}

// A file that cannot be opened or read is unread; an empty one has no magic code.
static bool report_unopened(check_state* state, const volume_check* volume, const std::string& path,
                            const std::string& file, const header_view& view) {
    if (view.error == 0) {
        return false;
    }
    if (view.error == ENODATA) {
        add_finding(state, finding_code::H02, volume, file);
        state->findings.back().detail = "The file is empty.";
    } else {
        add_unread(state, volume, path, view.error);
    }
    return true;
}

template <typename Header>
static bool has_head(const Header& header, uint32_t type) {
    metadata_head head;
    memcpy(&head, &header, sizeof head);
    return head.magic_code == METADATA_MAGIC_CODE && head.file_type == type;
}

template <typename Header>
static metadata_head head_of(const Header& header) {
    metadata_head head;
    memcpy(&head, &header, sizeof head);
    return head;
}

static void read_table(check_state* state, volume_check* volume) {
    if (volume->files->table_state != view_state::file) {
        return;
    }
    const std::string& path = volume->files->table;
    const std::string file = below_root(volume, path);
    (void)open_header(path, TBL_CONST_NODES, TBL_VAR_NODES, &volume->table, &volume->table_view);
    if (report_unopened(state, volume, path, file, volume->table_view)) {
        return;
    }
    const header_case header = {volume, file, &volume->table_view, FILE_TYPE_TBL, 0};
    check_nodes(state, header, TBL_CONST_NODES);
    if (!node_is_bad(header, 0)) {
        check_head(state, header, head_of(volume->table));
    }
    check_table_fields(state, header, volume->table);
    volume->has_table = node_is_bad(header, 0) || has_head(volume->table, FILE_TYPE_TBL);
    if (!node_is_bad(header, 1) && is_extent_size(volume->table.tbl_extent_size)) {
        volume->shift = static_cast<uint32_t>(std::countr_zero(volume->table.tbl_extent_size));
    }
}

static void read_index(check_state* state, volume_check* volume) {
    if (volume->files->index_state != view_state::file) {
        return;
    }
    const std::string& path = volume->files->index;
    const std::string file = below_root(volume, path);
    (void)open_header(path, FRI_CONST_NODES, FRI_VAR_NODES, &volume->index, &volume->index_view);
    if (report_unopened(state, volume, path, file, volume->index_view)) {
        return;
    }
    const header_case header = {volume, file, &volume->index_view, FILE_TYPE_FRI, 0};
    check_nodes(state, header, FRI_CONST_NODES);
    if (!node_is_bad(header, 0)) {
        check_head(state, header, head_of(volume->index));
    }
    check_index_fields(state, header, volume->index);
    volume->has_index = node_is_bad(header, 0) || has_head(volume->index, FILE_TYPE_FRI);
}

// The pool table of a map: M06, and the rows for the entries that use them.
static void read_pools(check_state* state, const volume_check* volume, map_check* map, int fd) {
    const uint32_t rows = map->header.map_pool_cnt;
    const header_case header = {volume, map->file->below, &map->view, FILE_TYPE_MAP, 0};
    if ((map->view.bad_nodes >> 3 & 1) != 0) {
        return;  // the count itself is unknown
    }
    if (rows > MAP_POOL_TABLE_MAX) {
        impossible(state, header, "map_pool_cnt", rows);
        return;
    }
    map->pools.resize(rows);
    const size_t size = rows * UUID_SIZE;
    size_t got = 0;
    while (got < size) {
        const ssize_t part = io_read_at(fd, map->pools.data()->data() + got, size - got,
                                        MAP_POOL_TABLE_OFFSET + got);
        if (part < 0) {
            add_unread(state, volume, map->file->path, errno);
            map->pools.clear();
            return;
        }
        if (part == 0) {
            break;  // the file ends: the rest is zero
        }
        got += static_cast<size_t>(part);
    }
    uint32_t checksum = 0;
    tarn_crc32c(map->pools.data(), static_cast<uint32_t>(size), &checksum);
    if (rows > 0 && checksum != map->header.map_pool_cksum) {
        map->pool_finding = add_finding(state, finding_code::M06, volume, map->file->below);
        finding* added = &state->findings.back();
        added->was = hex(map->header.map_pool_cksum);
        added->ought = hex(checksum);
        added->owners = {owner_of(*map)};
    }
}

static void size_map(check_state* state, const volume_check* volume, map_check* map) {
    const bool known = (map->view.bad_nodes >> 1 & 1) == 0;
    const uint64_t of_file = map_entries_of_file(map->view);
    map->entries = known ? map->header.map_total_count : of_file;
    if (known && map->entries > DATA_NODE_NUM_END * MAP_NODE_ENTRIES) {
        const header_case header = {volume, map->file->below, &map->view, FILE_TYPE_MAP, 0};
        impossible(state, header, "map_total_count", map->entries);
        map->entries = of_file;
        map->damaged = true;
    }
    if (map->file->place == map_place::copy_map && volume->shift != 0) {
        map->entries = std::max({map->entries, of_file, rod_entry_count(volume->shift)});
    }
}

static void read_map(check_state* state, const volume_check* volume, map_check* map) {
    const scoped_fd fd =
        open_header(map->file->path, MAP_CONST_NODES, MAP_VAR_NODES, &map->header, &map->view);
    const size_t first = state->findings.size();
    if (report_unopened(state, volume, map->file->path, map->file->below, map->view)) {
        return;
    }
    const header_case header = {volume, map->file->below, &map->view, FILE_TYPE_MAP, 0};
    check_nodes(state, header, MAP_CONST_NODES);
    if (!node_is_bad(header, 0)) {
        check_head(state, header, head_of(map->header));
    }
    map->damaged = map->view.bad_nodes != 0;
    map->readable = node_is_bad(header, 0) || has_head(map->header, FILE_TYPE_MAP);
    if (map->readable) {
        size_map(state, volume, map);
        read_pools(state, volume, map, fd.get());
    }
    for (size_t i = first; i < state->findings.size(); i++) {
        if (state->findings[i].owners.empty()) {
            state->findings[i].owners = {owner_of(*map)};
        }
    }
}

static void read_data_file(check_state* state, const volume_check* volume,
                           const view_data_file& data) {
    dat_header content = {};
    header_view view;
    const std::string file = below_root(volume, data.path);
    (void)open_header(data.path, DAT_CONST_NODES, DAT_VAR_NODES, &content, &view);
    if (view.error != 0 && view.error != ENODATA) {
        add_unread(state, volume, data.path, view.error);
        return;
    }
    const metadata_head head = content.head;
    if (view.error != 0 || view.bad_nodes != 0 || head.magic_code != METADATA_MAGIC_CODE) {
        add_finding(state, finding_code::D03, volume, file);
        return;
    }
    state->data_uuids.push_back(uuid_bytes_of(head.uuid));
    if (volume->has_table && (volume->table_view.bad_nodes & 1) == 0 &&
        !uuid_equal(head.uuid, volume->table.tbl_uuid)) {
        add_finding(state, finding_code::P02, volume, file);
        state->findings.back().was = uuid_text(head.uuid);
        state->findings.back().ought = uuid_text(volume->table.tbl_uuid);
    }
}

static bool is_zero(const uint8_t* uuid) {
    static constexpr uint8_t zero[UUID_SIZE] = {};
    return uuid_equal(uuid, zero);
}

// A file with a uuid of its own.
struct identity {
    uuid_bytes uuid;
    const volume_check* volume;
    std::string file;
    const map_check* map;  // null: a table or an index
};

static void add_identity(std::vector<identity>* all, const uint8_t* uuid,
                         const volume_check* volume, const std::string& path,
                         const map_check* map) {
    identity added = {{}, volume, below_root(volume, path), map};
    memcpy(added.uuid.data(), uuid, UUID_SIZE);
    all->push_back(added);
}

// Files of the same uuid come together; the first one stays unreported, each further one is.
static void report_twins(check_state* state, std::vector<identity>* all) {
    std::stable_sort(all->begin(), all->end(), [](const identity& one, const identity& other) {
        return one.uuid < other.uuid;
    });
    for (size_t i = 1; i < all->size(); i++) {
        const identity& first = (*all)[i - 1];
        const identity& twin = (*all)[i];
        if (first.uuid != twin.uuid || is_zero(twin.uuid.data()) ||
            (first.map == nullptr && first.volume == twin.volume)) {
            continue;
        }
        add_finding(state, finding_code::P01, twin.volume, twin.file);
        finding* added = &state->findings.back();
        added->was = uuid_text(twin.uuid.data());
        added->detail = "The other file is " + first.volume->files->root + "/" + first.file + ".";
        for (const identity* at : {&first, &twin}) {
            if (at->map != nullptr) {
                added->owners.push_back(owner_of(*at->map));
            }
        }
    }
}

static void check_zero(check_state* state, const identity& at) {
    if (is_zero(at.uuid.data())) {
        add_finding(state, finding_code::P03, at.volume, at.file);
    }
}

static void check_identities(check_state* state) {
    std::vector<identity> tables;
    std::vector<identity> maps;
    for (const volume_check& volume : state->volumes) {
        const bool table = volume.has_table && (volume.table_view.bad_nodes & 1) == 0;
        const bool index = volume.has_index && (volume.index_view.bad_nodes & 1) == 0;
        if (table) {
            add_identity(&tables, volume.table.tbl_uuid, &volume, volume.files->table, nullptr);
        }
        if (index) {
            add_identity(&tables, volume.index.fri_uuid, &volume, volume.files->index, nullptr);
        }
        if (table && index && !uuid_equal(volume.table.tbl_uuid, volume.index.fri_uuid)) {
            add_finding(state, finding_code::P02, &volume,
                        below_root(&volume, volume.files->index));
            state->findings.back().was = uuid_text(volume.index.fri_uuid);
            state->findings.back().ought = uuid_text(volume.table.tbl_uuid);
        }
        for (const map_check& map : volume.maps) {
            if (map.readable && (map.view.bad_nodes & 1) == 0) {
                add_identity(&maps, map.header.map_uuid, &volume, map.file->path, &map);
            }
        }
    }
    for (const auto* all : {&tables, &maps}) {
        for (const identity& at : *all) {
            check_zero(state, at);
        }
    }
    report_twins(state, &tables);
    report_twins(state, &maps);
}

// The pools that an entry of a map may be in: those of every volume of the server.
static void collect_pools(check_state* state) {
    for (const volume_files& files : state->server.volumes) {
        if (files.state == volume_state::plain) {
            continue;
        }
        tbl_header table = {};
        header_view view;
        uuid_bytes uuid;
        if (files.table_state == view_state::file) {
            (void)open_header(files.table, TBL_CONST_NODES, TBL_VAR_NODES, &table, &view);
        }
        if (view.node_count == 0 || (view.bad_nodes & 1) != 0) {
            state->pools_unknown = true;
            continue;
        }
        memcpy(uuid.data(), table.tbl_uuid, UUID_SIZE);
        state->pool_uuids.push_back(uuid);
    }
}

// What is counted: the extents of the data files, or of the whole table when no data file is there.
static void set_bound(volume_check* volume) {
    const std::vector<view_data_file>& data = volume->files->data_files;
    uint32_t size = 0;
    if (volume->shift == 0 && ORBAiSCSIVAAIExtentSizeAndShiftGet(volume->files->root.c_str(), &size,
                                                                 &volume->shift) < 0) {
        volume->shift = 0;
    }
    // The platform takes it from the table's header too, unless the configuration names it.
    volume->shift_is_doubtful = volume->shift != 0 && size == volume->table.tbl_extent_size &&
                                (volume->table_view.bad_nodes >> 1 & 1) != 0;
    volume->extents = TBL_TOTAL_COUNT;
    if (!data.empty() && volume->shift != 0) {
        volume->extents =
            std::min(TBL_TOTAL_COUNT, (data.back().number + 1) << (DAT_SPAN_SHIFT - volume->shift));
    }
}

void read_volume_headers(check_state* state, volume_check* volume) {
    read_table(state, volume);
    read_index(state, volume);
    set_bound(volume);
}

void check_headers(check_state* state) {
    collect_pools(state);
    for (volume_check& volume : state->volumes) {
        if (volume.files->state != volume_state::sound) {
            continue;
        }
        read_volume_headers(state, &volume);
        volume.maps.resize(volume.files->maps.size());
        for (size_t i = 0; i < volume.maps.size(); i++) {
            volume.maps[i].file = &volume.files->maps[i];
            read_map(state, &volume, &volume.maps[i]);
        }
        for (const view_data_file& data : volume.files->data_files) {
            read_data_file(state, &volume, data);
        }
    }
    check_identities(state);
}
