#include "fri/fri_file.h"

#include <cstdio>
#include <ctime>

#include "print.h"
#include "store/descriptor.h"
#include "store/log.h"
#include "store/uuid.h"

static constexpr header_kind FRI_KIND = {"fri", FRI_CONST_NODES, FRI_VAR_NODES};

fri_file current_fri;

int load_fri(const char* path) {
    close_fri();  // an open one would be lost, its writes unsynced
    return load_header_file(__func__, FRI_KIND, magic_rule::required, path, &current_fri.fd,
                            &current_fri.header);
}

void close_fri() {
    close_synced(current_fri.fd);
    current_fri.fd = 0;
}

int save_fri() {
    return save_header_file(__func__, FRI_KIND, current_fri.fd, &current_fri.header);
}

// Closes the current index without a sync: nothing in it needs to reach the disk. The descriptor is
// cleared, since a later close_fri must not close another file that got its number.
static void drop_fri() {
    io_close(current_fri.fd);
    current_fri.fd = 0;
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

// Logs under the documented name, whoever called it.
static int create_keeping(const char* newpath, const char* oldpath, const uint8_t* kept) {
    close_fri();  // as in load_fri
    if (would_empty("create_fri", newpath, oldpath)) {
        log_err_as("create_fri", "%s cannot be created from itself\n", newpath);
        return -1;
    }
    current_fri.fd = create_file(newpath, FRI_FILE_SIZE);
    if (current_fri.fd == 0) {
        return -1;  // logged there
    }
    uint8_t uuid[UUID_SIZE];
    if (inherit_uuid(oldpath, kept, uuid) != 0) {
        drop_fri();
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

int load_fri_handle(fri_handle* handle, const char* name, file_access access) {
    return load_handle(__func__, FRI_KIND, handle, handle != nullptr ? &handle->header : nullptr,
                       name, access);
}

int take_fri_handle(fri_handle* handle, const opened_file* file) {
    return take_handle(FRI_KIND, handle, &handle->header, file);
}

int close_fri_handle(fri_handle* handle) {
    return close_handle(__func__, handle);
}

int extract_fri_uuid(const char* name, uint8_t* uuid_out) {
    return read_file_uuid(name, uuid_out);
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
    change_uuid("FRI", current_fri.header.fri_uuid, uuid);
}
