// The pool that a map's entry points into. The map is found by its uuid among the open handles.
// Below: handle_set.h. Above: journal replay into the table.
#pragma once

#include "map/map_format.h"

// Stores the uuid of the pool that `entry` of the map `m_uuid` names. 0; -1 when no open handle
// has that uuid (not logged), or the map has no such row (logged). A table's handle that is found
// instead of a map's has no rows.
int tarn_map_get_pool_uuid(const map_entry* entry, const uint8_t* m_uuid, uint8_t* p_uuid);
