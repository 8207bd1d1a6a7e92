// For tests that hold the entry road: what it does call by call.
#pragma once

#include "store/roads.h"

class entry_road_scope {
public:
    entry_road_scope() { entry_road_only = true; }
    ~entry_road_scope() { entry_road_only = false; }
    entry_road_scope(const entry_road_scope&) = delete;
    entry_road_scope& operator=(const entry_road_scope&) = delete;
};
