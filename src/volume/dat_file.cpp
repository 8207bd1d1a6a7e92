#include "volume/dat_file.h"

#include <cstdio>

#include "store/header_file.h"
#include "store/log.h"
#include "store/meta_node.h"
#include "volume/volume_paths.h"

int load_dat_handle(dat_handle* handle, const char* path) {
    if (path == nullptr) {
        log_err("%s NULL pointer\n", "name");
        return -1;
    }
    if (handle == nullptr) {
        log_err("%s NULL pointer\n", "handle");
        return -1;
    }
    dat_header header{};
    handle->fd = open_with_header(__func__, {"dat", DAT_CONST_NODES, DAT_VAR_NODES}, path, &header);
    if (handle->fd == 0 || meta_hdr_d2m(&header) != 0) {
        return drop_handle(&handle->fd, &handle->buffer);  // logged there
    }
    handle->header = header;
    snprintf(handle->name, sizeof handle->name, "%s", path);
    return 0;
}

int close_dat_handle(dat_handle* handle) {
    if (handle == nullptr) {
        log_err("%s NULL pointer\n", "handle");
        return -1;
    }
    end_handle(&handle->fd, &handle->buffer);
    return 0;
}

int dat_file_path(char* out, const char* root, unsigned number) {
    return form_path(out, PATH_TEXT_SIZE, "%s/%s/EP_DAT_%05u", root, EP_DIR, number);
}
