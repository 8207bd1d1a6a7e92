#include "store/handle_set.h"

#include <cstdlib>

#include "fri/fri_file.h"
#include "map/map_handle.h"
#include "store/descriptor.h"
#include "store/file.h"
#include "store/log.h"
#include "store/meta_node.h"
#include "tbl/tbl_file.h"

static int take_tbl_kind(handle_prefix* handle, const opened_file* file) {
    return take_tbl_handle(reinterpret_cast<tbl_handle*>(handle), file);
}
static int take_fri_kind(handle_prefix* handle, const opened_file* file) {
    return take_fri_handle(reinterpret_cast<fri_handle*>(handle), file);
}
static int take_map_kind(handle_prefix* handle, const opened_file* file) {
    return take_map_handle(reinterpret_cast<map_handle*>(handle), file);
}
static int close_tbl_kind(handle_prefix* handle) {
    return close_tbl_handle(reinterpret_cast<tbl_handle*>(handle));
}
static int close_fri_kind(handle_prefix* handle) {
    return close_fri_handle(reinterpret_cast<fri_handle*>(handle));
}
static int close_map_kind(handle_prefix* handle) {
    return close_map_handle(reinterpret_cast<map_handle*>(handle));
}

struct kind_row {
    uint32_t type;
    const char* word;
    size_t size;
    int (*take)(handle_prefix* handle, const opened_file* file);
    int (*close)(handle_prefix* handle);
};
static constexpr kind_row kinds[] = {
    // in the order in which the set is closed
    {FILE_TYPE_TBL, "tbl", sizeof(tbl_handle), take_tbl_kind, close_tbl_kind},
    {FILE_TYPE_FRI, "fri", sizeof(fri_handle), take_fri_kind, close_fri_kind},
    {FILE_TYPE_MAP, "map", sizeof(map_handle), take_map_kind, close_map_kind},
};
constexpr int KIND_COUNT = sizeof kinds / sizeof kinds[0];
static_assert(kinds[HANDLE_TBL].type == FILE_TYPE_TBL);
static_assert(kinds[HANDLE_FRI].type == FILE_TYPE_FRI);
static_assert(kinds[HANDLE_MAP].type == FILE_TYPE_MAP);

static constexpr uint32_t FILE_TYPE_HIGHEST = 5;  // of the types that are known at all

static struct {
    bool initialised;
    list_link lists[KIND_COUNT];
} set;

static handle_prefix* handle_of(list_link* link) {
    return reinterpret_cast<handle_prefix*>(reinterpret_cast<char*>(link) -
                                            offsetof(handle_prefix, link));
}

static void append(list_link* list, list_link* link) {
    link->prev = list->prev;
    link->next = list;
    list->prev->next = link;
    list->prev = link;
}

static void unlink_handle(list_link* link) {
    link->prev->next = link->next;
    link->next->prev = link->prev;
}

void init_handle_set() {
    if (set.initialised) {
        return;
    }
    for (list_link& list : set.lists) {
        list = {&list, &list};
    }
    set.initialised = true;
}

static const kind_row* kind_of_type(uint32_t type) {
    for (const kind_row& row : kinds) {
        if (row.type == type) {
            return &row;
        }
    }
    return nullptr;
}

// Opens the file at `path` and reads its header and its type. 0; -1, logged, and nothing is open.
static int open_and_read_type(opened_file* file, const char* path, uint32_t* type) {
    file->path = path;
    file->fd = open_file(path);
    if (file->fd == 0) {
        log_err_as("load_as_handle", "open file %s fail\n", path);
        return -1;
    }
    meta_header_read(file->fd, &file->header);
    meta_node node;
    if (meta_header_node(&file->header, &node, 0) < 0) {
        log_err_as("load_as_handle", "const meta node[0] read from %s fail\n", path);
        io_close(file->fd);
        return -1;
    }
    (void)meta_hdr_d2m(&node);  // deliberate: a wrong magic code is only logged
    metadata_head head;
    memcpy(&head, &node, sizeof head);
    *type = head.file_type;
    return 0;
}

// Makes the file a handle of its kind, linked when the set is initialised. 0; -1, logged, and the
// file is closed.
static int take_kind(const kind_row* kind, const opened_file* file) {
    auto* handle = static_cast<handle_prefix*>(calloc(1, kind->size));
    if (handle == nullptr) {
        log_err_as("load_as_handle", "Fail to allocate tbl handle\n");  // the words of every kind
        io_close(file->fd);
        return -1;
    }
    handle->link = {&handle->link, &handle->link};
    if (kind->take(handle, file) != 0) {
        free(handle);
        return -1;  // logged there
    }
    if (!set.initialised) {
        (void)kind->close(handle);  // nobody could find or close it
        free(handle);
        return 0;
    }
    append(&set.lists[kind - kinds], &handle->link);
    return 0;
}

int load_as_handle(const char* path) {
    if (path == nullptr) {
        log_err("%s NULL pointer\n", "name");
        return -1;
    }
    opened_file file;
    uint32_t type = 0;
    if (open_and_read_type(&file, path, &type) != 0) {
        return -1;  // logged there
    }
    const kind_row* kind = kind_of_type(type);
    if (kind != nullptr) {
        return take_kind(kind, &file);
    }
    io_close(file.fd);
    if (type == 0 || type > FILE_TYPE_HIGHEST) {
        log_err("Unrecognized file type %d\n", static_cast<int>(type));
    } else {
        log_err("Not support file type %d load to handle\n", static_cast<int>(type));
    }
    return -1;
}

static handle_prefix* find_in_list(list_link* list, const uint8_t* uuid) {
    if (!set.initialised) {
        return nullptr;
    }
    for (list_link* link = list->next; link != list; link = link->next) {
        if (uuid_equal(handle_of(link)->head.uuid, uuid)) {
            return handle_of(link);
        }
    }
    return nullptr;
}

handle_prefix* lookup_handle_of_kind(const uint8_t* uuid, uint32_t type, handle_kind* found) {
    const kind_row* kind = kind_of_type(type);
    if (kind == nullptr) {
        if (type != 0 && type <= FILE_TYPE_HIGHEST) {
            log_err_as("lookup_handle", "Not support %d type lookup\n", static_cast<int>(type));
        }
        return nullptr;
    }
    *found = static_cast<handle_kind>(kind - kinds);
    handle_prefix* handle = find_in_list(&set.lists[*found], uuid);
    if (handle == nullptr && *found == HANDLE_MAP) {  // deliberate: a table may answer for a map
        *found = HANDLE_TBL;
        handle = find_in_list(&set.lists[HANDLE_TBL], uuid);
    }
    return handle;
}

handle_prefix* lookup_handle(const uint8_t* uuid, uint32_t type) {
    handle_kind ignored = HANDLE_TBL;
    return lookup_handle_of_kind(uuid, type, &ignored);
}

// Closes and frees every handle of one kind. 0, or -1 when a close failed, logged.
static int finish_kind(const kind_row* kind, list_link* list) {
    int result = 0;
    while (list->next != list) {
        handle_prefix* handle = handle_of(list->next);
        if (kind->close(handle) != 0) {
            log_err_as("finish_handle_set", "Fail to close %s file handle name:%s\n", kind->word,
                       handle->path);
            result = -1;
        }
        unlink_handle(&handle->link);
        free(handle);
    }
    return result;
}

int finish_handle_set() {
    int result = 0;
    for (int i = 0; i < KIND_COUNT && set.initialised; i++) {
        if (finish_kind(&kinds[i], &set.lists[i]) != 0) {
            result = -1;
        }
    }
    return result;
}
