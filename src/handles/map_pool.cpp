#include "handles/map_pool.h"

#include "handles/handle_set.h"
#include "map/map_handle.h"
#include "store/log.h"

int tarn_map_get_pool_uuid(const map_entry* entry, const uint8_t* m_uuid, uint8_t* p_uuid) {
    if (log_missing(m_uuid == nullptr, "m_uuid") || log_missing(p_uuid == nullptr, "p_uuid")) {
        return -1;
    }
    handle_kind kind = HANDLE_TBL;
    const handle_prefix* handle = lookup_handle_of_kind(m_uuid, FILE_TYPE_MAP, &kind);
    if (handle == nullptr) {
        return -1;
    }
    memset(p_uuid, 0, UUID_SIZE);
    // A table that answers for the map has no pools.
    const auto* map = kind == HANDLE_MAP ? static_cast<const map_handle*>(handle) : nullptr;
    const uint32_t poolnum = map_entry_get_poolnum(entry);
    const uint32_t count = map != nullptr ? uint32_t{map->header.map_pool_cnt} : 0;
    if (poolnum >= count) {
        log_err("Fail to get uuid, poolnum %u, map_pool_cnt %u\n", poolnum, count);
        return -1;
    }
    if (map->pools == nullptr) {
        log_err("NULL pool, poolnum %u, map_pool_cnt %u\n", poolnum, count);
        return -1;
    }
    memcpy(p_uuid, map->pools[poolnum], UUID_SIZE);
    return 0;
}
