#include "store/roads.h"

bool entry_road_only = false;
