#include "tbl/tbl_file.h"

#include <cstdio>
#include <ctime>

#include "print.h"
#include "store/descriptor.h"
#include "store/log.h"
#include "store/uuid.h"

static constexpr header_kind TBL_KIND = {"tbl", TBL_CONST_NODES, TBL_VAR_NODES};

tbl_file current_tbl;

int load_tbl(const char* path) {
    close_tbl();  // an open one would be lost, its writes unsynced
    return load_header_file(__func__, TBL_KIND, magic_rule::required, path, &current_tbl.fd,
                            &current_tbl.header);
}

void close_tbl() {
    close_synced(current_tbl.fd);
    current_tbl.fd = 0;
}

int save_tbl() {
    return save_header_file(__func__, TBL_KIND, current_tbl.fd, &current_tbl.header);
}

// Closes the current table without a sync: nothing in it needs to reach the disk. The descriptor is
// cleared, since a later close_tbl must not close another file that got its number.
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

// Logs under the documented name. `keeps_uuid`: when the uuid of the old file cannot be read again,
// that of its header is used, not a fresh one.
static int create_from(const char* newpath, const char* oldpath, bool keeps_uuid) {
    if (load_tbl(oldpath) != 0) {
        printf("TARN_INFO: %s %s\n", TBL_LOAD_FAILED, oldpath != nullptr ? oldpath : "(null)");
        drop_tbl();
        return -1;
    }
    const tbl_header old = current_tbl.header;
    close_tbl();
    if (would_empty("create_tbl", newpath, oldpath)) {
        log_err_as("create_tbl", "%s cannot be created from itself\n", newpath);
        return -1;
    }
    current_tbl.fd = create_file(newpath, TBL_FILE_SIZE);
    if (current_tbl.fd == 0) {
        log_err_as("create_tbl", "tbl file descriptor is invalid\n");
        return -1;
    }
    uint8_t uuid[UUID_SIZE];
    if (inherit_uuid(oldpath, keeps_uuid ? old.tbl_uuid : nullptr, uuid) != 0) {
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

int load_tbl_handle(tbl_handle* handle, const char* name, file_access access) {
    return load_handle(__func__, TBL_KIND, handle, handle != nullptr ? &handle->header : nullptr,
                       name, access);
}

int take_tbl_handle(tbl_handle* handle, const opened_file* file) {
    return take_handle(TBL_KIND, handle, &handle->header, file);
}

int close_tbl_handle(tbl_handle* handle) {
    return close_handle(__func__, handle);
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
    change_uuid("TBL", current_tbl.header.tbl_uuid, uuid);
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
