// What the handles of table, index and map have in common: the first fields, in this order, so that
// the handle set can link, name and compare them without knowing their kind.
#pragma once

#include "metadata.h"

struct list_link {
    list_link* next;
    list_link* prev;
};

struct handle_prefix {
    int fd;                     // 0: closed
    char path[PATH_TEXT_SIZE];  // as it was opened, cut to fit
    list_link link;             // the handle set's; points to itself while in no list
    metadata_head head;         // constant node 0 of the file, the uuid in it
};
