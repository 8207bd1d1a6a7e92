// Which loaded file the journal's entries of a type belong to. Below: the three kinds' files.
// Above: verification, replay.
#pragma once

#include <cstdint>

// The uuid of the loaded table (type 1), index (2 and 3) or map (4); null for any other type.
const uint8_t* jnl_target_uuid(int32_t type);
