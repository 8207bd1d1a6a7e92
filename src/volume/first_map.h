// Whether a volume has a map at all: a walk inside the process that prints nothing, starts no
// program and ends at the first map. Below: descriptor.h, volume_layout.h. Above: start-up replay.
#pragma once

#include <cstddef>

enum class first_map {
    none,
    found,
    unknown,  // a directory cannot be read, or is too deep: logged, a reason to keep the journal
};

// Looks below the volume `root`. The path of the map that was found goes to `path`, cut to `size`.
first_map find_first_map(const char* root, char* path, size_t size);
