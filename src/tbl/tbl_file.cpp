#include "tbl/tbl_file.h"

#include <cstdio>
#include <ctime>

#include "fri/fri_file.h"
#include "print.h"
#include "store/descriptor.h"
#include "store/file.h"
#include "store/header_file.h"
#include "store/log.h"
#include "store/meta_node.h"
#include "store/uuid.h"

tbl_file current_tbl;

int load_tbl(const char* path) {
    close_tbl();  // one that is still open would be lost, its writes unsynced
    current_tbl.fd = open_file(path);
    if (current_tbl.fd == 0) {
        log_err("tbl file descriptor is invalid\n");
        return -1;
    }
    tbl_header header;
    if (tarn_load_meta_nodes(current_tbl.fd, &header, TBL_CONST_NODES, TBL_VAR_NODES) != 0 ||
        meta_hdr_d2m(&header) != 0) {
        return -1;  // logged there
    }
    current_tbl.header = header;
    return 0;
}

void close_tbl() {
    close_synced(current_tbl.fd);
    current_tbl.fd = 0;
}

int save_tbl() {
    if (current_tbl.fd == 0) {
        log_err("tbl file descriptor is invalid\n");
        return -1;
    }
    meta_hdr_m2d(&current_tbl.header);
    return tarn_save_meta_nodes(current_tbl.fd, &current_tbl.header, TBL_CONST_NODES,
                                TBL_VAR_NODES);
}

// Gives up the current table; nothing in it needs to reach the disk. The number is cleared: after
// the close it may name any other file, which a later close_tbl must not touch.
static void drop_tbl() {
    io_close(current_tbl.fd);
    current_tbl.fd = 0;
}

static tbl_header new_header(uint32_t extent_size, const uint8_t* uuid) {
    tbl_header header{};
    header.tbl_version = TBL_VERSION;
    header.tbl_magic_code = METADATA_MAGIC_CODE;
    header.tbl_type = FILE_TYPE_TBL;
    memcpy(header.tbl_uuid, uuid, UUID_SIZE);
    header.tbl_data_offset = METADATA_DATA_OFFSET;
    header.tbl_create_time = static_cast<uint32_t>(time(nullptr));
    header.tbl_extent_size = extent_size;
    header.tbl_entry_size = sizeof(tbl_entry);
    header.tbl_total_count = TBL_TOTAL_COUNT;
    return header;
}

// Under the documented name. `keeps_uuid`: where the uuid of the old file cannot be read again,
// that of its header stays; else a fresh one is taken.
static int create_from(const char* newpath, const char* oldpath, bool keeps_uuid) {
    if (load_tbl(oldpath) != 0) {
        printf("TARN_INFO: %s %s\n", TBL_LOAD_FAILED, oldpath != nullptr ? oldpath : "(null)");
        drop_tbl();
        return -1;
    }
    const tbl_header old = current_tbl.header;
    close_tbl();
    if (would_empty("create_tbl", newpath, oldpath)) {
        log_err_as("create_tbl", "%s would be emptied to create itself\n", newpath);
        return -1;
    }
    current_tbl.fd = create_file(newpath, TBL_FILE_SIZE);
    if (current_tbl.fd == 0) {
        log_err_as("create_tbl", "tbl file descriptor is invalid\n");
        return -1;
    }
    uint8_t uuid[UUID_SIZE];
    memcpy(uuid, old.tbl_uuid, UUID_SIZE);
    if (extract_fri_uuid(oldpath, uuid) != 0 && !keeps_uuid && uuid_gen(uuid, UUID_SIZE) != 0) {
        drop_tbl();
        return -1;  // logged there
    }
    current_tbl.header = new_header(old.tbl_extent_size, uuid);
    return 0;
}

int create_tbl(const char* newpath, const char* oldpath) {
    return create_from(newpath, oldpath, false);
}

int recreate_tbl(const char* newpath, const char* oldpath) {
    return create_from(newpath, oldpath, true);
}

static void take_header(tbl_handle* handle, const tbl_header* header, const char* name) {
    (void)meta_hdr_d2m(header);  // deliberate: a wrong magic code is logged, the handle loads
    handle->header = *header;
    snprintf(handle->path, sizeof handle->path, "%s", name);
}

int load_tbl_handle(tbl_handle* handle, const char* name) {
    if (name == nullptr) {
        log_err("%s NULL pointer\n", "name");
        return handle == nullptr ? -1 : drop_handle(&handle->fd, &handle->buffer);
    }
    if (handle == nullptr) {
        log_err("%s NULL pointer\n", "handle");
        return -1;
    }
    tbl_header header;
    handle->fd = open_with_header(__func__, "tbl", name, &header, TBL_CONST_NODES, TBL_VAR_NODES);
    if (handle->fd == 0) {
        return drop_handle(&handle->fd, &handle->buffer);  // logged there
    }
    take_header(handle, &header, name);
    return 0;
}

int take_tbl_handle(tbl_handle* handle, const opened_file* file) {
    tbl_header header;
    if (meta_header_load(&file->header, &header, TBL_CONST_NODES, TBL_VAR_NODES) != 0) {
        io_close(file->fd);
        return -1;  // logged there
    }
    handle->fd = file->fd;
    take_header(handle, &header, file->path);
    return 0;
}

int close_tbl_handle(tbl_handle* handle) {
    if (handle == nullptr) {
        log_err("%s NULL pointer\n", "handle");
        return -1;
    }
    end_handle(&handle->fd, &handle->buffer);
    return 0;
}

int dump_tbl_meta() {
    if (current_tbl.fd == 0) {
        log_err("tbl file descriptor is invalid\n");
        return -1;
    }
    print_fields(TBL_HEADER_ROWS, &current_tbl.header, nullptr);
    return 0;
}

void set_tbl_uuid(const uint8_t* uuid) {
    tbl_header& header = current_tbl.header;
    puts("TARN_INFO: chagne TBL uuid:");
    printf("TARN_INFO: from [" UUID_PLAIN "]\n", UUID_ARGS(header.tbl_uuid));
    memcpy(header.tbl_uuid, uuid, UUID_SIZE);
    printf("TARN_INFO: to   [" UUID_PLAIN "]\n", UUID_ARGS(header.tbl_uuid));
}

uint32_t get_tbl_extent_size() {
    return current_tbl.header.tbl_extent_size;
}

void set_tbl_extent_size(uint32_t size) {
    puts("TARN_INFO: chagne TBL extent size:");
    printf("TARN_INFO: from %d\n", static_cast<int>(current_tbl.header.tbl_extent_size));
    current_tbl.header.tbl_extent_size = size;
    printf("TARN_INFO: to %d\n", static_cast<int>(size));
}
