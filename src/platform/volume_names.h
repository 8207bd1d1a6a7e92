// What a volume is called: "volume<N>", N from 1 to 2^31 - 1 without a leading zero.
#pragma once

#include <cstddef>

// The N of a path component of `length` characters; -1 when it is none.
int volume_number(const char* component, size_t length);
// Decodes the octal escapes of a mount table's field in place.
void decode_mount_path(char* path);
