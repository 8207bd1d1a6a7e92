#include "ctl/check/frozen.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <vector>

#include "store/crc32c.h"
#include "store/meta_node.h"

static constexpr size_t CHUNK = size_t{64} << 10;  // bytes of one read

// Copies the data of a file into the overlay: what was read is written in its place. False: it
// cannot be read, or there is no room.
static bool copy_file(const std::string& path, uint64_t* room) {
    const int opened = io_open(path.c_str(), O_RDWR | O_NONBLOCK, 0);
    if (opened <= 0) {
        return false;
    }
    const scoped_fd fd(opened);
    const int64_t size = io_size(opened);
    std::vector<uint8_t> bytes(CHUNK);
    const auto end = static_cast<uint64_t>(std::max<int64_t>(size, 0));
    for (uint64_t at = io_next_data(opened, 0, end); at < end;) {
        const size_t wanted = std::min<uint64_t>(CHUNK, end - at);
        const ssize_t got = io_read_at(opened, bytes.data(), wanted, at);
        if (got <= 0 || static_cast<uint64_t>(got) > *room ||
            io_write_at(opened, bytes.data(), static_cast<size_t>(got), at) != got) {
            return false;
        }
        *room -= static_cast<uint64_t>(got);
        at += static_cast<uint64_t>(got);
        at = io_next_data(opened, at, end);
    }
    return size >= 0;
}

static bool copy_volumes(const server_files& server, uint64_t* room) {
    bool copied = true;
    for (const volume_files& volume : server.volumes) {
        if (volume.table_state == view_state::file) {
            copied = copied && copy_file(volume.table, room);
        }
        if (volume.index_state == view_state::file) {
            copied = copied && copy_file(volume.index, room);
        }
        for (const view_map& map : volume.maps) {
            copied = copied && copy_file(map.path, room);
        }
    }
    return copied;
}

// Puts another budget into the copied journal's header, with a right checksum.
static bool widen_window(const std::string& path, const jnl_header& header, uint32_t more) {
    const uint64_t sync = header.jnl_sync_count == 0 ? 64 : header.jnl_sync_count;
    const uint64_t widened = std::min<uint64_t>(sync + (more + 1) / 2, ~uint32_t{0} / 2);
    jnl_header changed = header;
    changed.jnl_sync_count = static_cast<uint32_t>(widened);
    meta_node node;
    memcpy(&node, &changed.checksum2, sizeof node);
    node.checksum = 0;
    uint32_t checksum = 0;
    tarn_crc32c(&node, sizeof node, &checksum);
    node.checksum = checksum;
    const int opened = io_open(path.c_str(), O_RDWR | O_NONBLOCK, 0);
    if (opened <= 0) {
        return false;
    }
    const scoped_fd fd(opened);
    return io_write_at(opened, &node, sizeof node, META_VAR_NODE_BASE * META_NODE_SIZE) ==
           static_cast<ssize_t>(sizeof node);
}

freeze_end freeze(const server_files& server, uint32_t id_before) {
    uint64_t room = FROZEN_BYTES_MAX;
    if (!copy_volumes(server, &room) || !copy_file(server.journal, &room)) {
        return room < CHUNK ? freeze_end::too_large : freeze_end::moved_on;
    }
    const std::optional<jnl_header> header = read_journal_header(server.journal);
    if (!header) {
        return freeze_end::moved_on;
    }
    // What the service had not written in place when the copy began, and what it did since.
    const ring_history history = history_of(server.journal, *header);
    const uint32_t written = history.newest_id - id_before;
    const uint64_t sync = header->jnl_sync_count == 0 ? 64 : header->jnl_sync_count;
    if (history.commits < sync + written || !widen_window(server.journal, *header, written)) {
        return freeze_end::moved_on;
    }
    return freeze_end::frozen;
}
