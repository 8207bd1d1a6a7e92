#include "volume/unmap_buffer.h"

#include <cstdint>
#include <cstdio>

#include "map/map_file.h"
#include "store/log.h"
#include "volume/discovery.h"
#include "volume/path_list.h"
#include "volume/volume_paths.h"

static constexpr size_t BUFFER_PATH_SIZE = 256;

static int count_entries(const char* root, uint64_t* count) {
    char path[BUFFER_PATH_SIZE];
    if (form_path(path, sizeof path, "%s/%s/EP_BUF", root, EP_DIR) != 0) {
        return -1;
    }
    const int result = get_map_count(path, count);
    if (result != 0) {
        log_err_as("count_vol_unmap_buffer", "Fail to get mapped_count from %s\n", path);
    }
    close_map();
    return result;
}

int count_vol_unmap_buffer() {
    path_entry volumes = {};
    init_path_list(&volumes);
    int result = enum_all_volumes(&volumes);
    if (result != 0) {
        log_err("Fail to enum all volumes\n");
    }
    int left = 0;
    for (const path_entry* volume = volumes.next; volume != &volumes && result == 0;
         volume = volume->next) {
        uint64_t entries = 0;
        result = count_entries(volume->name, &entries);
        left += entries != 0 ? 1 : 0;
    }
    free_path_list(&volumes);
    if (result != 0) {
        return -1;
    }
    printf("TARN_INFO: volumes with unmapped buffer         %d\n", left);
    return 0;
}
