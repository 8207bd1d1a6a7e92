#include "store/header_file.h"

#include "store/descriptor.h"
#include "store/file.h"
#include "store/log.h"

int open_with_header(const char* caller, const char* kind, const char* path, void* header,
                     int const_nodes, int var_nodes) {
    const int fd = open_file(path);
    if (fd == 0) {
        log_err_as(caller, "%s file descriptor is invalid\n", kind);
        return 0;
    }
    if (tarn_load_meta_nodes(fd, header, const_nodes, var_nodes) != 0) {
        io_close(fd);
        return 0;  // logged there
    }
    return fd;
}

static void free_buffer(uint8_t** buffer) {
    delete[] * buffer;
    *buffer = nullptr;
}

void end_handle(int* fd, uint8_t** buffer) {
    free_buffer(buffer);
    close_synced(*fd);
    *fd = 0;
}

int drop_handle(int* fd, uint8_t** buffer) {
    free_buffer(buffer);
    io_close(*fd);
    *fd = 0;
    return -1;
}
