#include "jnl/jnl_file.h"

#include <algorithm>
#include <cstdio>
#include <limits>

#include "jnl/jnl_block_cache.h"
#include "journal_status.h"
#include "store/descriptor.h"
#include "store/file.h"
#include "store/log.h"
#include "store/meta_node.h"

jnl_file current_jnl = {};

static constexpr uint32_t COMMITS_BY_DEFAULT = 128;

int load_jnl(const char* path) {
    if (path == nullptr) {
        log_err("%s NULL pointer\n", "name");
        return -1;
    }
    current_jnl.fd = jnl_kept_file_take(path);
    if (current_jnl.fd == 0) {
        current_jnl.fd = open_file(path);
    }
    snprintf(current_jnl.path, sizeof current_jnl.path, "%s", path);
    if (current_jnl.fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return -1;
    }
    jnl_header header = {};
    if (tarn_load_meta_nodes(current_jnl.fd, &header, JNL_CONST_NODES, JNL_VAR_NODES) != 0 ||
        meta_hdr_d2m(&header) != 0) {
        return -1;  // logged there
    }
    current_jnl.header = header;
    jnl_block_cache_opened(current_jnl.fd);
    return 0;
}

void close_jnl() {
    if (current_jnl.fd != 0 && !jnl_kept_file_put(current_jnl.fd, current_jnl.path)) {
        close_synced(current_jnl.fd);
    }
    current_jnl.fd = 0;
}

int32_t journal_status() {
    if (current_jnl.fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return -1;
    }
    return static_cast<int32_t>(current_jnl.header.jnl_shutdown_tag);
}

static bool is_known_status(uint32_t tag) {
    return tag == JNL_STATUS_INIT || tag == JNL_STATUS_SUCCESS || tag == JNL_STATUS_ABNORMAL ||
           tag == JNL_STATUS_BAD || tag == JNL_STATUS_RO;
}

int set_journal_status(uint32_t tag) {
    if (current_jnl.fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return -1;
    }
    if (!is_known_status(current_jnl.header.jnl_shutdown_tag)) {
        return -1;
    }
    current_jnl.header.jnl_shutdown_tag = tag;
    jnl_header header = current_jnl.header;
    meta_hdr_m2d(&header);
    (void)tarn_save_meta_nodes(current_jnl.fd, &header, JNL_CONST_NODES, JNL_VAR_NODES);
    return 0;  // deliberate: the failure is in the log, and counted
}

uint32_t journal_sync_count() {
    if (current_jnl.fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return 0;
    }
    const uint64_t count = current_jnl.header.jnl_sync_count;
    if (count == 0) {
        return COMMITS_BY_DEFAULT;
    }
    constexpr uint64_t most = std::numeric_limits<uint32_t>::max();
    return static_cast<uint32_t>(std::min(2 * count, most));
}
