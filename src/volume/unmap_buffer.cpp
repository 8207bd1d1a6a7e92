#include "volume/unmap_buffer.h"

#include <cstdint>
#include <cstdio>

#include "map/map_file.h"
#include "store/log.h"
#include "volume/discovery.h"

static constexpr size_t BUFFER_PATH_SIZE = 256;

static int count_entries(const char* root, uint64_t* count) {
    char path[BUFFER_PATH_SIZE];
    if (form_path(path, sizeof path, "%s/%s/%s", root, EP_DIR, UNMAP_BUFFER_NAME) != 0) {
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
    int left = 0;
    const int result = for_each_volume(__func__, [&](const char* root) {
        uint64_t entries = 0;
        const int counted = count_entries(root, &entries);
        left += entries != 0 ? 1 : 0;
        return counted;
    });
    if (result != 0) {
        return -1;
    }
    printf("TARN_INFO: volumes with unmapped buffer         %d\n", left);
    return 0;
}
