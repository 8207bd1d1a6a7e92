#include "volume/path_list.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <search.h>

#include "store/keep_journal.h"

void init_path_list(path_entry* list) {
    list->next = list;
    list->prev = list;
}

int add_path_entry(const char* path, path_entry* list, uint32_t type) {
    path_entry* entry = new (std::nothrow) path_entry{};
    if (entry == nullptr) {
        log_err("no memory for path %s\n", path);
        return -1;
    }
    snprintf(entry->name, sizeof entry->name, "%s", path);
    if (strlen(path) >= sizeof entry->name) {
        // The file of the whole path gets nothing of what was meant for it.
        log_keep(keep_reason::unread, "path %s is cut to %s\n", path, entry->name);
    }
    entry->type = type;
    insque(entry, list->prev);
    return 0;
}

void free_path_list(path_entry* list) {
    path_entry* entry = list->next;
    while (entry != list) {
        path_entry* next = entry->next;
        delete entry;
        entry = next;
    }
    init_path_list(list);
}
