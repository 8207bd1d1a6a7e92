#include "jnl/jnl_file.h"

#include <algorithm>
#include <cstdio>
#include <limits>

#include "journal_status.h"
#include "store/descriptor.h"
#include "store/file.h"
#include "store/log.h"
#include "store/meta_node.h"

jnl_file current_jnl = {};

static constexpr uint32_t COMMITS_BY_DEFAULT = 128;

jnl_keep_blocks::jnl_keep_blocks(jnl_file* jnl) : jnl_(jnl->cache == nullptr ? jnl : nullptr) {
    if (jnl_ != nullptr) {
        jnl_->cache = &cache_.emplace();
    }
}

jnl_keep_blocks::~jnl_keep_blocks() {
    if (jnl_ != nullptr) {
        jnl_->cache = nullptr;
    }
}

int load_jnl(const char* path) {
    if (path == nullptr) {
        log_err("%s NULL pointer\n", "name");
        return -1;
    }
    jnl_block_cache* cache = current_jnl.cache;
    current_jnl.fd = cache != nullptr ? cache->take_file(path) : 0;
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
    if (cache != nullptr) {
        cache->opened(current_jnl.fd);
    }
    return 0;
}

void close_jnl() {
    jnl_block_cache* cache = current_jnl.cache;
    if (current_jnl.fd != 0 &&
        (cache == nullptr || !cache->keep_file(current_jnl.fd, current_jnl.path))) {
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

struct status_text {
    uint32_t tag;
    const char* text;
};

static constexpr status_text status_texts[] = {
    {JNL_STATUS_INIT, "Not Initialized"},       {JNL_STATUS_SUCCESS, "Shutdown Successfully"},
    {JNL_STATUS_ABNORMAL, "Abnormal Shutdown"}, {JNL_STATUS_BAD, "Status Bad, Inconsistent"},
    {JNL_STATUS_RO, "Status Read-Only Bad"},
};

const char* jnl_status_text(uint32_t tag) {
    for (const status_text& status : status_texts) {
        if (status.tag == tag) {
            return status.text;
        }
    }
    return nullptr;
}

int set_journal_status(uint32_t tag) {
    if (current_jnl.fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return -1;
    }
    if (jnl_status_text(current_jnl.header.jnl_shutdown_tag) == nullptr) {
        return -1;
    }
    current_jnl.header.jnl_shutdown_tag = tag;
    jnl_header header = current_jnl.header;
    meta_hdr_m2d(&header);
    (void)tarn_save_meta_nodes(current_jnl.fd, &header, JNL_CONST_NODES, JNL_VAR_NODES);
    return 0;  // deliberate: the failure is in the log, and counted
}

uint32_t jnl_commit_budget(const jnl_header* header) {
    const uint64_t count = header->jnl_sync_count;
    if (count == 0) {
        return COMMITS_BY_DEFAULT;
    }
    constexpr uint64_t most = std::numeric_limits<uint32_t>::max();
    return static_cast<uint32_t>(std::min(2 * count, most));
}

uint32_t journal_sync_count() {
    if (current_jnl.fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return 0;
    }
    return jnl_commit_budget(&current_jnl.header);
}
