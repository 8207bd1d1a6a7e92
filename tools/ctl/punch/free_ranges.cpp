#include "ctl/punch/free_ranges.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>

#include "ctl/check/table_groups.h"
#include "ctl/text/escape.h"
#include "volume/dat_file.h"

namespace {

// tarn takes its time for each extent, hole or not: a longer stretch of holes parts a range.
constexpr uint64_t HOLES_SPANNED_MAX = 1024;  // extents

// A data file that is open.
struct open_data {
    scoped_fd fd;
    uint64_t size;   // bytes
    uint64_t first;  // extent
    uint64_t end;    // after the last extent that begins in the file
};

class free_search {
public:
    free_search(const volume_check& volume, free_space* space) : volume_(volume), space_(space) {}

    bool open_files(std::string* problem);
    bool run(std::string* problem);

private:
    bool take_group(uint64_t group);
    void take_free(uint64_t first, uint64_t end);
    void finish_run();
    void look_at_data(const open_data& file, uint64_t first, uint64_t end);
    void add_data(uint64_t first, uint64_t end, uint64_t bytes);

    const volume_check& volume_;
    free_space* space_;
    std::vector<open_data> files_;
    uint64_t extents_ = 0;  // to be looked at
    uint64_t first_ = 0;    // of the free extents in hand
    uint64_t end_ = 0;
    bool continues_ = false;  // the last range is one of these
    size_t file_ = 0;         // the first one that can hold them
    tbl_group_image image_ = {};
    uint32_t checksums_[TBL_GROUP_BLOCKS_MAX] = {};
};

std::string cannot_read(const std::string& path) {
    return shown(path) + " cannot be read: " + strerror(errno != 0 ? errno : EIO) + ".";
}

// Only as many as tarn opens.
bool free_search::open_files(std::string* problem) {
    raise_open_file_limit();
    const uint64_t span = uint64_t{1} << (DAT_SPAN_SHIFT - volume_.shift);
    for (const view_data_file& data : volume_.files->data_files) {
        if (data.number >= static_cast<uint64_t>(DAT_FILE_MAX)) {
            break;
        }
        scoped_fd fd(std::max(io_open(data.path.c_str(), O_RDONLY | O_NONBLOCK, 0), 0));
        const int64_t size = fd.get() == 0 ? -1 : io_size(fd.get());
        if (size < 0) {
            *problem = cannot_read(data.path);
            return false;
        }
        const uint64_t bytes = std::max(static_cast<uint64_t>(size), DAT_DATA_OFFSET);
        const uint64_t here =
            (bytes - DAT_DATA_OFFSET + extent_bytes(&volume_) - 1) >> volume_.shift;
        const uint64_t first = data.number * span;
        extents_ = first + std::min(here, span);
        files_.push_back({std::move(fd), bytes, first, extents_});
    }
    return true;
}

// Extents `first` to end - 1 are free, and have `bytes` of data.
void free_search::add_data(uint64_t first, uint64_t end, uint64_t bytes) {
    space_->data += bytes;
    free_range* last = space_->ranges.empty() ? nullptr : &space_->ranges.back();
    if (last == nullptr || !continues_ || first > last->first + last->count + HOLES_SPANNED_MAX) {
        space_->ranges.push_back({first, end - first, bytes});
        continues_ = true;
        return;
    }
    last->count = end - last->first;
    last->bytes += bytes;
}

// Free extents `first` to end - 1 of one data file: what of them is data.
void free_search::look_at_data(const open_data& file, uint64_t first, uint64_t end) {
    const uint64_t begin = dat_byte_in_file(first, volume_.shift);
    const uint64_t stop = std::min(file.size, begin + ((end - first) << volume_.shift));
    uint64_t holes = stop - begin;
    for (uint64_t at = io_next_data(file.fd.get(), begin, stop); at < stop;) {
        const uint64_t hole = std::max(io_next_hole(file.fd.get(), at, stop), at + 1);
        add_data(first + ((at - begin) >> volume_.shift),
                 first + ((hole - 1 - begin) >> volume_.shift) + 1, hole - at);
        holes -= hole - at;
        at = io_next_data(file.fd.get(), hole, stop);
    }
    space_->extents += end - first;
    space_->holes += holes;
}

void free_search::finish_run() {
    continues_ = false;
    while (file_ < files_.size() && files_[file_].end <= first_) {
        file_++;
    }
    for (size_t i = file_; i < files_.size() && files_[i].first < end_; i++) {
        const uint64_t first = std::max(first_, files_[i].first);
        const uint64_t end = std::min(end_, files_[i].end);
        if (first < end) {
            look_at_data(files_[i], first, end);
        }
    }
    first_ = end_ = 0;
}

void free_search::take_free(uint64_t first, uint64_t end) {
    if (first_ == end_ || end_ != first) {
        if (first_ != end_) {
            finish_run();
        }
        first_ = first;
    }
    end_ = end;
}

bool free_search::take_group(uint64_t group) {
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        if ((image_.words[offset] & TBL_USED_BIT) == 0) {
            const uint64_t lpa = tbl_lpa_of(group, offset);
            take_free(lpa, lpa + 1);
        }
    }
    return !has_damaged_block(image_, checksums_);
}

// Extents past the last data file's end are free as well, and hold nothing.
bool free_search::run(std::string* problem) {
    const std::string& path = volume_.files->table;
    const scoped_fd table(std::max(io_open(path.c_str(), O_RDONLY | O_NONBLOCK, 0), 0));
    const uint64_t groups =
        (std::min(extents_, TBL_TOTAL_COUNT) + TBL_GROUP_ENTRIES - 1) / TBL_GROUP_ENTRIES;
    for (uint64_t group = 0; table.get() != 0 && group < groups; group++) {
        const uint64_t with_data = next_table_group(table.get(), group, groups);
        if (with_data > group) {
            take_free(tbl_lpa_of(group, 0), tbl_lpa_of(with_data, 0));
            group = with_data;
        }
        if (group >= groups) {
            break;
        }
        errno = 0;
        if (!load_table_group(table.get(), group, &image_, checksums_)) {
            *problem = cannot_read(path);
            return false;
        }
        if (!take_group(group)) {
            *problem = shown(path) + " is damaged.";
            return false;
        }
    }
    if (first_ != end_) {
        finish_run();
    }
    if (table.get() == 0) {
        *problem = cannot_read(path);
    }
    return table.get() != 0;
}

}  // namespace

bool find_free_space(const volume_check& volume, free_space* space, std::string* problem) {
    const auto search = std::make_unique<free_search>(volume, space);
    return search->open_files(problem) && search->run(problem);
}
