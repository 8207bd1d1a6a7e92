#include "fri/fri_file.h"

#include <cstdio>
#include <ctime>

#include "print.h"
#include "store/descriptor.h"
#include "store/file.h"
#include "store/header_file.h"
#include "store/log.h"
#include "store/meta_node.h"
#include "store/uuid.h"

fri_file current_fri;

int load_fri(const char* path) {
    close_fri();  // one that is still open would be lost, its writes unsynced
    current_fri.fd = open_file(path);
    if (current_fri.fd == 0) {
        log_err("fri file descriptor is invalid\n");
        return -1;
    }
    fri_header header;
    if (tarn_load_meta_nodes(current_fri.fd, &header, FRI_CONST_NODES, FRI_VAR_NODES) != 0 ||
        meta_hdr_d2m(&header) != 0) {
        return -1;  // logged there
    }
    current_fri.header = header;
    return 0;
}

void close_fri() {
    close_synced(current_fri.fd);
    current_fri.fd = 0;
}

int save_fri() {
    if (current_fri.fd == 0) {
        log_err("fri file descriptor is invalid\n");
        return -1;
    }
    meta_hdr_m2d(&current_fri.header);
    return tarn_save_meta_nodes(current_fri.fd, &current_fri.header, FRI_CONST_NODES,
                                FRI_VAR_NODES);
}

static fri_header new_header(const uint8_t* uuid) {
    fri_header header{};
    header.fri_version = FRI_VERSION;
    header.fri_magic_code = METADATA_MAGIC_CODE;
    header.fri_type = FILE_TYPE_FRI;
    memcpy(header.fri_uuid, uuid, UUID_SIZE);
    header.fri_data_offset = METADATA_DATA_OFFSET;
    header.fri_create_time = static_cast<uint32_t>(time(nullptr));
    header.fri_entry_size = sizeof(fri_entry);
    header.fri_free_count = FRI_NEW_FREE_COUNT;
    return header;  // no group is initialised, and the list begins at the first
}

// The uuid of the file at `oldpath`; where it cannot be had, `kept`, or a fresh one when that is
// null. 0, or -1, logged.
static int choose_uuid(const char* oldpath, const uint8_t* kept, uint8_t* uuid) {
    if (oldpath != nullptr && extract_fri_uuid(oldpath, uuid) == 0) {
        return 0;
    }
    if (kept == nullptr) {
        return uuid_gen(uuid, UUID_SIZE);
    }
    memcpy(uuid, kept, UUID_SIZE);
    return 0;
}

// Under the documented name, whoever asked for it.
static int create_keeping(const char* newpath, const char* oldpath, const uint8_t* kept) {
    close_fri();  // as in load_fri
    if (would_empty("create_fri", newpath, oldpath)) {
        log_err_as("create_fri", "%s would be emptied to create itself\n", newpath);
        return -1;
    }
    current_fri.fd = create_file(newpath, FRI_FILE_SIZE);
    if (current_fri.fd == 0) {
        return -1;  // logged there
    }
    uint8_t uuid[UUID_SIZE];
    if (choose_uuid(oldpath, kept, uuid) != 0) {
        io_close(current_fri.fd);
        current_fri.fd = 0;
        return -1;  // logged there
    }
    current_fri.header = new_header(uuid);
    return 0;
}

int create_fri(const char* newpath, const char* oldpath) {
    return create_keeping(newpath, oldpath, nullptr);
}

int recreate_fri(const char* newpath, const char* oldpath, const uint8_t* uuid) {
    return create_keeping(newpath, oldpath, uuid);
}

static void take_header(fri_handle* handle, const fri_header* header, const char* name) {
    (void)meta_hdr_d2m(header);  // deliberate: a wrong magic code is logged, the handle loads
    handle->header = *header;
    snprintf(handle->path, sizeof handle->path, "%s", name);
}

int load_fri_handle(fri_handle* handle, const char* name) {
    if (name == nullptr) {
        log_err("%s NULL pointer\n", "name");
        return handle == nullptr ? -1 : drop_handle(&handle->fd, &handle->buffer);
    }
    if (handle == nullptr) {
        log_err("%s NULL pointer\n", "handle");
        return -1;
    }
    fri_header header;
    handle->fd = open_with_header(__func__, "fri", name, &header, FRI_CONST_NODES, FRI_VAR_NODES);
    if (handle->fd == 0) {
        return drop_handle(&handle->fd, &handle->buffer);  // logged there
    }
    take_header(handle, &header, name);
    return 0;
}

int take_fri_handle(fri_handle* handle, const opened_file* file) {
    fri_header header;
    if (meta_header_load(&file->header, &header, FRI_CONST_NODES, FRI_VAR_NODES) != 0) {
        io_close(file->fd);
        return -1;  // logged there
    }
    handle->fd = file->fd;
    take_header(handle, &header, file->path);
    return 0;
}

int close_fri_handle(fri_handle* handle) {
    if (handle == nullptr) {
        log_err("%s NULL pointer\n", "handle");
        return -1;
    }
    end_handle(&handle->fd, &handle->buffer);
    return 0;
}

int extract_fri_uuid(const char* name, uint8_t* uuid_out) {
    if (name == nullptr) {
        log_err("%s NULL pointer\n", "name");
        return -1;
    }
    if (uuid_out == nullptr) {
        log_err("%s NULL pointer\n", "uuid");
        return -1;
    }
    fri_header header;
    const scoped_fd file(
        open_with_header(__func__, "fri", name, &header, FRI_CONST_NODES, FRI_VAR_NODES));
    if (file.get() == 0) {
        return -1;  // logged there
    }
    (void)meta_hdr_d2m(&header);  // deliberate: a wrong magic code is logged, the uuid taken
    memcpy(uuid_out, header.fri_uuid, UUID_SIZE);
    return 0;
}

int dump_fri_meta() {
    if (current_fri.fd == 0) {
        log_err("fri file descriptor is invalid\n");
        return -1;
    }
    print_fields(FRI_HEADER_ROWS, &current_fri.header, nullptr);
    return 0;
}

void set_fri_uuid(const uint8_t* uuid) {
    fri_header& header = current_fri.header;
    puts("TARN_INFO: chagne FRI uuid:");
    printf("TARN_INFO: from [" UUID_PLAIN "]\n", UUID_ARGS(header.fri_uuid));
    memcpy(header.fri_uuid, uuid, UUID_SIZE);
    printf("TARN_INFO: to   [" UUID_PLAIN "]\n", UUID_ARGS(header.fri_uuid));
}
