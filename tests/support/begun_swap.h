// A volume whose repair was cut after its rebuild: the rebuilt files wait in the work directory.
#pragma once

#include <gtest/gtest.h>
#include <string>

#include "support/sample_volumes.h"
#include "volume/table_swap.h"

inline void put_rebuilt_files(const std::string& root, uint8_t table_uuid, uint8_t index_uuid) {
    make_directories(root + "/@EP_FIX");
    make_tbl(root + "/@EP_FIX/EP_TBL", uuid_of(table_uuid));
    make_fri(root + "/@EP_FIX/EP_FRI", uuid_of(index_uuid), 4096);
}

// The rebuilt files with the marker of their swap.
inline void put_begun_swap(const std::string& root, uint8_t table_uuid, uint8_t index_uuid) {
    put_rebuilt_files(root, table_uuid, index_uuid);
    table_swap swap;
    ASSERT_EQ(table_swap_form(&swap, root.c_str()), 0);
    ASSERT_EQ(table_swap_begin(&swap), 0);
}
