#include "ctl/check/data_holes.h"

#include <algorithm>
#include <fcntl.h>

#include "volume/dat_file.h"

void close_hole_look(hole_look* look) {
    if (look->fd > 0) {
        io_close(look->fd);
    }
    *look = {};
}

static void open_data_file(const volume_check* volume, hole_look* look, uint64_t number) {
    close_hole_look(look);
    look->number = number;
    for (const view_data_file& file : volume->files->data_files) {
        if (file.number == number) {
            look->fd = std::max(io_open(file.path.c_str(), O_RDONLY | O_NONBLOCK, 0), 0);
            look->size = file.size;
        }
    }
}

bool is_data_hole(const volume_check* volume, hole_look* look, uint64_t lpa) {
    const uint64_t number = dat_file_number(lpa, volume->shift);
    if (number != look->number) {
        open_data_file(volume, look, number);
    }
    const uint64_t begin = dat_byte_in_file(lpa, volume->shift);
    const uint64_t end = begin + extent_bytes(volume);
    if (look->fd == 0 || end > look->size) {
        return false;  // past the end is a finding of its own
    }
    if (begin < look->data_begin || begin >= look->data_end) {
        look->data_begin = io_next_data(look->fd, begin, look->size);
        look->data_end = io_next_hole(look->fd, look->data_begin, look->size);
    }
    return look->data_begin >= end;
}
