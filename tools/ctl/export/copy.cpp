#include "ctl/export/copy.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "ctl/text/progress.h"
#include "store/overlay.h"

namespace {

constexpr size_t CHUNK = size_t{1} << 20;        // bytes of one read
constexpr size_t BLOCK = 4096;                   // the least that is read, or left out as a hole
constexpr uint64_t SHARED = uint64_t{64} << 20;  // bytes of one call that shares

bool is_zero(const uint8_t* bytes, size_t count) {
    return bytes[0] == 0 && memcmp(bytes, bytes + 1, count - 1) == 0;
}

class copier {
public:
    copier(const copy_order& order, const copy_target& target, export_totals* totals)
        : order_(order),
          target_(target),
          totals_(totals),
          buffer_(CHUNK),
          line_(order.progress),
          part_(&line_, order.what, order.length) {
        line_.plan(order.length);
    }
    copy_end run();

private:
    copy_end copy(const lun_stretch& stretch);
    copy_end copy_data(int fd, uint64_t at, uint64_t bytes);
    uint64_t share(int fd, uint64_t at, uint64_t bytes);
    copy_end copy_chunk(int fd, uint64_t at, size_t bytes);
    bool put(const uint8_t* bytes, size_t count);
    bool put_data(const uint8_t* bytes, size_t count);
    bool put_zeros(uint64_t count);

    const copy_order& order_;
    const copy_target& target_;
    export_totals* totals_;
    std::vector<uint8_t> buffer_;
    uint64_t done_ = 0;  // bytes, written or left out
    bool may_share_ = true;
    progress_line line_;
    progress_part part_;
};

// Writes all of it at the place where the copy is.
bool copier::put(const uint8_t* bytes, size_t count) {
    for (size_t put = 0; put < count;) {
        const ssize_t part = target_.sparse
                                 ? io_write_at(target_.fd, bytes + put, count - put, done_ + put)
                                 : io_write(target_.fd, bytes + put, count - put);
        if (part <= 0) {
            errno = part == 0 ? ENOSPC : errno;
            return false;
        }
        put += static_cast<size_t>(part);
    }
    done_ += count;
    part_.reached(done_);
    return true;
}

// In a sparse file blocks of zeros are left out.
bool copier::put_data(const uint8_t* bytes, size_t count) {
    if (!target_.sparse) {
        return put(bytes, count);
    }
    const auto zero_at = [&](size_t at) {
        return is_zero(bytes + at, std::min(BLOCK, count - at));
    };
    for (size_t at = 0; at < count;) {
        const bool zero = zero_at(at);
        size_t end = at;
        while (end < count && zero_at(end) == zero) {
            end = std::min(end + BLOCK, count);
        }
        if (zero) {
            done_ += end - at;
        } else if (!put(bytes + at, end - at)) {
            return false;
        }
        at = end;
    }
    return true;
}

bool copier::put_zeros(uint64_t count) {
    if (target_.sparse) {
        done_ += count;
        return true;
    }
    std::fill(buffer_.begin(), buffer_.end(), uint8_t{0});
    for (uint64_t left = count; left > 0;) {
        const size_t part = std::min<uint64_t>(left, CHUNK);
        if (!put(buffer_.data(), part)) {
            return false;
        }
        left -= part;
    }
    return true;
}

// Shares bytes with the data file, or lets the system copy them. Returns how many were; where that
// ends early, reading and writing find out why.
uint64_t copier::share(int fd, uint64_t at, uint64_t bytes) {
    uint64_t shared = 0;
    while (may_share_ && shared < bytes) {
        const size_t part = std::min(bytes - shared, SHARED);
        const ssize_t got = io_copy(fd, at + shared, target_.fd, done_, part);
        if (got <= 0) {
            may_share_ = got < 0 && errno == EIO;
            break;
        }
        totals_->add(done_, static_cast<uint64_t>(got), lun_stretch_kind::data);
        shared += static_cast<uint64_t>(got);
        done_ += static_cast<uint64_t>(got);
        part_.reached(done_);
    }
    return shared;
}

// A chunk that cannot be read is read block by block.
copy_end copier::copy_chunk(int fd, uint64_t at, size_t bytes) {
    if (read_lun_data(fd, buffer_.data(), bytes, at)) {
        totals_->add(done_, bytes, lun_stretch_kind::data);
        return put_data(buffer_.data(), bytes) ? copy_end::done : copy_end::write_failed;
    }
    for (size_t read = 0; read < bytes; read += BLOCK) {
        const size_t part = std::min(BLOCK, bytes - read);
        const bool good = read_lun_data(fd, buffer_.data(), part, at + read);
        totals_->add(done_, part, good ? lun_stretch_kind::data : lun_stretch_kind::unread);
        if (!good && !order_.missing_zero) {
            return copy_end::missing;
        }
        if (!(good ? put_data(buffer_.data(), part) : put_zeros(part))) {
            return copy_end::write_failed;
        }
    }
    return copy_end::done;
}

copy_end copier::copy_data(int fd, uint64_t at, uint64_t bytes) {
    uint64_t done = target_.sparse ? share(fd, at, bytes) : 0;
    while (done < bytes) {
        const size_t part = std::min<uint64_t>(bytes - done, CHUNK);
        const copy_end end = copy_chunk(fd, at + done, part);
        if (end != copy_end::done) {
            return end;
        }
        done += part;
    }
    return copy_end::done;
}

copy_end copier::copy(const lun_stretch& stretch) {
    const io_overlay_pause on_disk;
    if (stretch.kind == lun_stretch_kind::data) {
        return copy_data(stretch.fd, stretch.at, stretch.bytes);
    }
    totals_->add(done_, stretch.bytes, stretch.kind);
    if (is_lun_missing(stretch.kind) && !order_.missing_zero) {
        return copy_end::missing;
    }
    return put_zeros(stretch.bytes) ? copy_end::done : copy_end::write_failed;
}

copy_end copier::run() {
    copy_end end = copy_end::done;
    while (end == copy_end::done && done_ < order_.length) {
        end = copy(order_.reader->stretch_at(order_.offset + done_, order_.length - done_));
        part_.reached(done_);
    }
    line_.clear();
    return end;
}

}  // namespace

void survey(const copy_order& order, export_totals* totals) {
    for (uint64_t done = 0; done < order.length;) {
        const lun_stretch stretch =
            order.reader->stretch_at(order.offset + done, order.length - done);
        totals->add(done, stretch.bytes, stretch.kind);
        done += stretch.bytes;
    }
}

copy_end copy_lun(const copy_order& order, const copy_target& target, export_totals* totals) {
    return copier(order, target, totals).run();
}
