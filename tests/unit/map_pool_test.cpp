#include "handles/map_pool.h"

#include <gtest/gtest.h>

#include "handles/handle_set.h"
#include "map/map_handle.h"
#include "store/crc32c.h"
#include "store/meta_node.h"
#include "support/hex.h"
#include "support/log_capture.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "tbl/tbl_file.h"

namespace {

const std::string CLEARED = "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00\n";

// Maps of uuid 16 times 0x4A: the pools, if any, are 16 times 0x50, 0x51, ...
class map_pool : public testing::Test {
protected:
    map_pool() {
        init_handle_set();
        finish_handle_set();
    }
    ~map_pool() override { finish_handle_set(); }
    void load_map_of(uint32_t pools) {
        std::vector<uint8_t> table;
        for (uint32_t i = 0; i < pools; i++) {
            table.insert(table.end(), 16, static_cast<uint8_t>(0x50 + i));
        }
        map_header header{};
        header.map_magic_code = 0x0886255218140633;
        header.map_type = 4;
        memset(header.map_uuid, 0x4A, 16);
        header.map_pool_cnt = pools;
        uint32_t checksum = 0;
        tarn_crc32c(table.data(), static_cast<uint32_t>(table.size()), &checksum);
        header.map_pool_cksum = checksum;
        ASSERT_EQ(tarn_save_meta_nodes(file_.fd(), &header, 2, 3), 0);
        file_.write_bytes(8192, table.data(), table.size());
        ASSERT_EQ(load_as_handle(file_.path()), 0);
    }
    // The pool that row `poolnum` names.
    int pool(uint64_t poolnum, uint8_t uuid_byte = 0x4A) {
        const map_entry entry{poolnum << 48 | uint64_t{1} << 63 | 0x123456789ABC};
        memset(uuid_, 0xEE, sizeof uuid_);
        return tarn_map_get_pool_uuid(&entry, uuid_of(uuid_byte).data(), uuid_);
    }

    scratch_file file_;
    log_capture log_;
    uint8_t uuid_[16] = {};
};

}  // namespace

TEST_F(map_pool, is_the_row_that_the_entry_names) {
    load_map_of(3);
    EXPECT_EQ(pool(0), 0);
    EXPECT_EQ(hex_of(uuid_), "50 50 50 50 50 50 50 50 50 50 50 50 50 50 50 50\n");
    EXPECT_EQ(pool(2), 0);
    EXPECT_EQ(hex_of(uuid_), "52 52 52 52 52 52 52 52 52 52 52 52 52 52 52 52\n");
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(map_pool, a_row_past_the_table_is_logged_and_the_uuid_is_cleared) {
    load_map_of(3);
    EXPECT_EQ(pool(3), -1);
    EXPECT_EQ(hex_of(uuid_), CLEARED);
    EXPECT_EQ(pool(4095), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: tarn_map_get_pool_uuid(#) Fail to get uuid, poolnum 3, "
                         "map_pool_cnt 3\n",
                         "ERR: tarn_map_get_pool_uuid(#) Fail to get uuid, poolnum 4095, "
                         "map_pool_cnt 3\n"}));
}

TEST_F(map_pool, a_map_without_pools_has_none_for_any_entry) {
    load_map_of(0);
    EXPECT_EQ(pool(0), -1);
    EXPECT_EQ(hex_of(uuid_), CLEARED);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: tarn_map_get_pool_uuid(#) Fail to get uuid, "
                                       "poolnum 0, map_pool_cnt 0\n"}));
}

TEST_F(map_pool, of_a_map_that_is_not_open_fails_and_is_not_logged) {
    load_map_of(1);
    EXPECT_EQ(pool(0, 0x4B), -1);
    EXPECT_EQ(uuid_[0], 0xEE);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(map_pool, a_missing_pool_table_in_memory_is_logged) {
    load_map_of(1);
    auto* handle = static_cast<map_handle*>(lookup_handle(uuid_of(0x4A).data(), 4));
    ASSERT_NE(handle, nullptr);
    auto* const pools = handle->pools;
    handle->pools = nullptr;
    EXPECT_EQ(pool(0), -1);
    handle->pools = pools;
    EXPECT_EQ(log_.lines(), log_lines({"ERR: tarn_map_get_pool_uuid(#) NULL pool, poolnum 0, "
                                       "map_pool_cnt 1\n"}));
}

TEST_F(map_pool, the_handle_of_a_table_found_for_a_map_has_no_pools) {
    make_tbl(file_.path(), uuid_of(0x4A));
    ASSERT_EQ(load_as_handle(file_.path()), 0);
    auto* table = static_cast<tbl_handle*>(lookup_handle(uuid_of(0x4A).data(), 1));
    ASSERT_NE(table, nullptr);
    memset(&table->node, 0xFF, sizeof table->node);  // none of it is read as a map's header
    EXPECT_EQ(pool(0), -1);
    EXPECT_EQ(hex_of(uuid_), CLEARED);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: tarn_map_get_pool_uuid(#) Fail to get uuid, "
                                       "poolnum 0, map_pool_cnt 0\n"}));
}

TEST_F(map_pool, missing_uuids_are_logged) {
    const map_entry entry{};
    EXPECT_EQ(tarn_map_get_pool_uuid(&entry, nullptr, nullptr), -1);
    EXPECT_EQ(tarn_map_get_pool_uuid(&entry, uuid_, nullptr), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: tarn_map_get_pool_uuid(#) m_uuid NULL pointer\n",
                                       "ERR: tarn_map_get_pool_uuid(#) p_uuid NULL pointer\n"}));
}
