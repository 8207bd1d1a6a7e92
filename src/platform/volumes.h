// The storage volumes, in their order: as configured, or as they are mounted; and their names:
// "volume<N>", N from 1 to 2^31 - 1 without a leading zero.
// Below: config.h. Above: ORBASpaceInfoEnum, ORBAVolIDParse.
#pragma once

#include <cstddef>

#include "platform.h"

// Lists the mount points of `mount_table` (a file of the form of /proc/self/mountinfo) that are
// called volume<N>, by N. *list is null before; the caller frees it, even on failure. 0, or -1 when
// the table cannot be read or there is no memory.
int list_mounted_volumes(const char* mount_table, ORBASpaceInfo** list);

// The N of a path component of `length` characters; -1 when it is not a volume's name.
int volume_number(const char* component, size_t length);
// Decodes the octal escapes of a mount table's field in place.
void decode_mount_path(char* path);
