#include "jnl/jnl_target.h"

#include "fri/fri_file.h"
#include "map/map_file.h"
#include "tbl/tbl_file.h"

const uint8_t* jnl_target_uuid(int32_t type) {
    switch (type) {
        case FILE_TYPE_TBL:
            return current_tbl.header.tbl_uuid;
        case FILE_TYPE_FRI:
        case FILE_TYPE_FRI_VAR0:
            return current_fri.header.fri_uuid;
        case FILE_TYPE_MAP:
            return current_map.header.map_uuid;
        default:
            return nullptr;
    }
}
