#include "handles/handle_set.h"

#include <new>

#include "fri/fri_file.h"
#include "map/map_handle.h"
#include "store/descriptor.h"
#include "store/log.h"
#include "tbl/tbl_file.h"

// The operations on handles of one kind. The set itself knows only their prefix.
template <class handle_type, int (*take)(handle_type*, const opened_file*),
          int (*close)(handle_type*)>
struct kind_functions {
    static handle_prefix* make() { return new (std::nothrow) handle_type{}; }
    static int take_file(handle_prefix* handle, const opened_file* file) {
        return take(static_cast<handle_type*>(handle), file);
    }
    static int close_file(handle_prefix* handle) {
        return close(static_cast<handle_type*>(handle));
    }
    static void free(handle_prefix* handle) { delete static_cast<handle_type*>(handle); }
};

struct kind_row {
    uint32_t type;
    const char* word;
    handle_prefix* (*make)();  // all zero; null without memory
    int (*take)(handle_prefix* handle, const opened_file* file);
    int (*close)(handle_prefix* handle);
    void (*free)(handle_prefix* handle);
};

template <class functions>
static constexpr kind_row row_of(uint32_t type, const char* word) {
    return {type,           word, functions::make, functions::take_file, functions::close_file,
            functions::free};
}

static constexpr kind_row kinds[] = {
    // in the order in which the set is closed
    row_of<kind_functions<tbl_handle, take_tbl_handle, close_tbl_handle>>(FILE_TYPE_TBL, "tbl"),
    row_of<kind_functions<fri_handle, take_fri_handle, close_fri_handle>>(FILE_TYPE_FRI, "fri"),
    row_of<kind_functions<map_handle, take_map_handle, close_map_handle>>(FILE_TYPE_MAP, "map"),
};
constexpr int KIND_COUNT = sizeof kinds / sizeof kinds[0];
static_assert(kinds[HANDLE_TBL].type == FILE_TYPE_TBL);
static_assert(kinds[HANDLE_FRI].type == FILE_TYPE_FRI);
static_assert(kinds[HANDLE_MAP].type == FILE_TYPE_MAP);

static constexpr uint32_t FILE_TYPE_HIGHEST = 5;  // the highest known type

struct handle_list {  // in load order
    handle_prefix* first;
    handle_prefix* last;
};

static struct {
    bool initialised;
    handle_list lists[KIND_COUNT];
} set;

static void append(handle_list* list, handle_prefix* handle) {
    (list->first == nullptr ? list->first : list->last->next) = handle;
    list->last = handle;
}

static handle_prefix* remove_first(handle_list* list) {
    handle_prefix* handle = list->first;
    list->first = handle->next;
    return handle;
}

void init_handle_set() {
    set.initialised = true;  // the lists are empty before and after
}

static const kind_row* kind_of_type(uint32_t type) {
    for (const kind_row& row : kinds) {
        if (row.type == type) {
            return &row;
        }
    }
    return nullptr;
}

// Opens the file at `path` and reads its header and type. 0; -1, logged, and nothing is open.
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
    handle_prefix* handle = kind->make();
    if (handle == nullptr) {
        log_err_as("load_as_handle", "Fail to allocate tbl handle\n");  // for every kind
        io_close(file->fd);
        return -1;
    }
    if (kind->take(handle, file) != 0) {
        kind->free(handle);
        return -1;  // logged there
    }
    if (!set.initialised) {
        (void)kind->close(handle);  // no lookup or finish would find it
        kind->free(handle);
        return 0;
    }
    append(&set.lists[kind - kinds], handle);
    return 0;
}

int load_as_handle(const char* path) {
    if (log_missing(path == nullptr, "name")) {
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

static handle_prefix* find_in_list(const handle_list* list, const uint8_t* uuid) {
    handle_prefix* handle = list->first;
    while (handle != nullptr && !uuid_equal(handle->uuid, uuid)) {
        handle = handle->next;
    }
    return handle;
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
static int finish_kind(const kind_row* kind, handle_list* list) {
    int result = 0;
    while (list->first != nullptr) {
        handle_prefix* handle = remove_first(list);
        if (kind->close(handle) != 0) {
            log_err_as("finish_handle_set", "Fail to close %s file handle name:%s\n", kind->word,
                       handle->path);
            result = -1;
        }
        kind->free(handle);
    }
    return result;
}

int finish_handle_set() {
    int result = 0;
    for (int i = 0; i < KIND_COUNT; i++) {
        if (finish_kind(&kinds[i], &set.lists[i]) != 0) {
            result = -1;
        }
    }
    return result;
}
