#include "view/lun_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "tbl/tbl_format.h"
#include "volume_layout.h"

// 0 if it cannot be opened, or its size is unknown.
static scoped_fd open_to_read(const std::string& path, uint64_t* size) {
    const int opened = io_open(path.c_str(), O_RDONLY | O_NONBLOCK, 0);
    scoped_fd fd(std::max(opened, 0));
    const int64_t bytes = opened > 0 ? io_size(opened) : -1;
    *size = static_cast<uint64_t>(bytes);
    return bytes < 0 ? scoped_fd(0) : std::move(fd);
}

int lun_reader::open() {
    uint64_t size = 0;
    map_ = open_to_read(layout_.map, &size).release();
    if (map_ == 0) {
        return errno != 0 ? errno : EIO;
    }
    for (const std::vector<lun_data_file>& files : layout_.volumes) {
        std::vector<opened_file>& opened = files_.emplace_back();
        for (const lun_data_file& file : files) {
            scoped_fd fd = open_to_read(file.path, &size);
            if (fd.get() != 0) {
                opened.push_back({file.number, std::move(fd), size});
            }
        }
    }
    return 0;
}

bool read_lun_data(int fd, void* to, uint64_t bytes, uint64_t at) {
    for (uint64_t done = 0; done < bytes;) {
        const ssize_t got =
            io_read_at(fd, static_cast<uint8_t*>(to) + done, bytes - done, at + done);
        if (got <= 0) {
            errno = got == 0 ? ENODATA : errno;
            return false;
        }
        done += static_cast<uint64_t>(got);
    }
    return true;
}

// Reads nodes, up to the end of the file. False: an error.
static bool read_nodes(int fd, void* to, size_t bytes, uint64_t number) {
    return read_lun_data(fd, to, bytes, data_node_offset(number)) || errno == ENODATA;
}

// A wrong checksum may come of a write at the same moment.
bool lun_reader::read_alone(uint64_t number) {
    constexpr int TRIES = 3;
    data_node* node = &nodes_[number % CACHED];
    for (int tries = 0; tries < TRIES; tries++) {
        *node = {};
        if (!read_nodes(map_, node, sizeof *node, number)) {
            return false;
        }
        if (!mismatch_of(node).found) {
            return true;
        }
    }
    return false;
}

void lun_reader::load(uint64_t first) {
    nodes_ = {};
    const bool read = read_nodes(map_, nodes_.data(), sizeof nodes_, first);
    for (size_t i = 0; i < CACHED; i++) {
        good_[i] = (read && !mismatch_of(&nodes_[i]).found) || read_alone(first + i);
    }
    cached_ = first;
}

const data_node* lun_reader::node_of(uint64_t number) {
    const std::vector<uint64_t>& bad = layout_.bad_nodes;
    if (number >= layout_.nodes_end || std::binary_search(bad.begin(), bad.end(), number)) {
        return nullptr;
    }
    const size_t slot = number % CACHED;
    if (cached_ != number - slot) {
        load(number - slot);
    }
    return good_[slot] ? &nodes_[slot] : nullptr;
}

lun_reader::place lun_reader::place_of_word(uint64_t word) const {
    const map_entry entry = {word};
    if (map_entry_is_mapped(&entry) == 0) {
        return {};
    }
    const uint32_t row = map_entry_get_poolnum(&entry);
    const uint64_t lpa = map_entry_get_lpa(&entry);
    if (row >= layout_.volume_of_row.size() || layout_.volume_of_row[row] < 0) {
        return {lun_stretch_kind::bad_row};
    }
    if (lpa >= TBL_TOTAL_COUNT) {
        return {lun_stretch_kind::bad_lpa};
    }
    const uint64_t number = dat_file_number(lpa, layout_.shift);
    for (const opened_file& file : files_[static_cast<size_t>(layout_.volume_of_row[row])]) {
        if (file.number == number) {
            return {lun_stretch_kind::data, file.fd.get(), dat_byte_in_file(lpa, layout_.shift),
                    file.size};
        }
    }
    return {lun_stretch_kind::no_file};
}

lun_reader::place lun_reader::place_of(uint64_t lea) {
    const data_node* node = node_of(map_node_of(lea));
    if (node == nullptr) {
        return {lun_stretch_kind::bad_node};
    }
    uint64_t word = 0;
    memcpy(&word, node->payload + map_byte_in_node(lea), sizeof word);
    return place_of_word(word);
}

// The lea after a node that is blank, and after the hole of the map's file behind it; `lea` itself
// if its node is not blank.
uint64_t lun_reader::end_of_blank(uint64_t lea) {
    const uint64_t number = map_node_of(lea);
    const data_node* node = node_of(number);
    if (node == nullptr || !data_node_is_blank(node)) {
        return lea;
    }
    const uint64_t last = std::min(layout_.nodes_end, map_node_count(layout_.entries));
    const uint64_t byte = io_next_data(map_, data_node_offset(number + 1), data_node_offset(last));
    return std::max(byte / DATA_NODE_SIZE - DATA_NODE_BASE, number + 1) * MAP_NODE_ENTRIES;
}

// The next lea that may be of another kind.
uint64_t lun_reader::step(lun_stretch_kind kind, uint64_t lea) {
    const uint64_t number = map_node_of(lea);
    switch (kind) {
        case lun_stretch_kind::unmapped:
            return std::max(lea + 1, end_of_blank(lea));
        case lun_stretch_kind::bad_node:
            return number >= layout_.nodes_end ? layout_.entries : (number + 1) * MAP_NODE_ENTRIES;
        default:
            return lea + 1;
    }
}

// The first lea after `lea` whose extent is not of the same kind, or lies elsewhere.
uint64_t lun_reader::end_of_alike(const place& where, uint64_t lea, uint64_t end) {
    const uint64_t extent = where.kind == lun_stretch_kind::data ? uint64_t{1} << layout_.shift : 0;
    place next = where;
    while (lea < end && place_of(lea) == next) {
        lea = step(where.kind, lea);
        next.at += extent;
    }
    return std::min(lea, end);
}

void lun_reader::find_run(uint64_t offset, uint64_t end) {
    const uint64_t lea = offset >> layout_.shift;
    const uint64_t end_lea = ((end - 1) >> layout_.shift) + 1;
    const place where = place_of(lea);
    run_ = {lea << layout_.shift, end_of_alike(where, lea, end_lea) << layout_.shift, where};
}

lun_stretch lun_reader::stretch_at(uint64_t offset, uint64_t limit) {
    if (offset < run_.begin || offset >= run_.end) {
        find_run(offset, offset + limit);
    }
    const place& where = run_.where;
    const uint64_t bytes = std::min(limit, run_.end - offset);
    if (where.kind != lun_stretch_kind::data) {
        return {where.kind, bytes, 0, 0};
    }
    const uint64_t at = where.at + (offset - run_.begin);
    if (at >= where.file_size) {
        return {lun_stretch_kind::past_end, bytes, 0, 0};
    }
    const uint64_t end = std::min(at + bytes, where.file_size);
    const uint64_t data = io_next_data(where.fd, at, end);
    if (data > at) {
        return {lun_stretch_kind::unwritten, data - at, 0, 0};
    }
    const uint64_t hole = io_next_hole(where.fd, at, end);
    return {lun_stretch_kind::data, hole > at ? hole - at : end - at, where.fd, at};
}
