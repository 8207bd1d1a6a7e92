#include "ctl/check/frozen.h"

#include <algorithm>
#include <fcntl.h>
#include <vector>

#include "ctl/check/journal_follower.h"

static constexpr size_t CHUNK = size_t{64} << 10;  // bytes of one read

// Copies the data of a file into the overlay: what was read is written in its place. False: it
// cannot be read, there is no room, or the journal ran away meanwhile.
static bool copy_file(const std::string& path, journal_follower* follower, uint64_t* room) {
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
            io_write_at(opened, bytes.data(), static_cast<size_t>(got), at) != got ||
            !follower->poll()) {
            return false;
        }
        *room -= static_cast<uint64_t>(got);
        at += static_cast<uint64_t>(got);
        at = io_next_data(opened, at, end);
    }
    return size >= 0;
}

static bool copy_volumes(const server_files& server, journal_follower* follower, uint64_t* room) {
    bool copied = true;
    for (const volume_files& volume : server.volumes) {
        if (volume.table_state == view_state::file) {
            copied = copied && copy_file(volume.table, follower, room);
        }
        if (volume.index_state == view_state::file) {
            copied = copied && copy_file(volume.index, follower, room);
        }
        for (const view_map& map : volume.maps) {
            copied = copied && copy_file(map.path, follower, room);
        }
    }
    return copied;
}

freeze_end freeze(const server_files& server) {
    uint64_t room = FROZEN_BYTES_MAX;
    journal_follower follower;
    if (!follower.begin(server.journal)) {
        return freeze_end::moved_on;
    }
    if (!copy_volumes(server, &follower, &room)) {
        return room < CHUNK ? freeze_end::too_large : freeze_end::moved_on;
    }
    return follower.poll() && follower.write(server.journal) ? freeze_end::frozen
                                                             : freeze_end::moved_on;
}
