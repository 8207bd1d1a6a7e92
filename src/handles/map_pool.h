// Which pool an entry of a map lies in: the map is found by its uuid among the open handles.
// Below: handle_set.h. Above: journal replay into the table.
#pragma once

#include "map/map_format.h"

// Stores the uuid of the pool that `entry` of the map `m_uuid` names. 0; -1 when no open handle
// has that uuid (not logged), or the map has no such row (logged); a table's handle that the set
// finds in place of a map's has no rows.
int tarn_map_get_pool_uuid(const map_entry* entry, const uint8_t* m_uuid, uint8_t* p_uuid);
