#include "support/pool_files.h"

#include <gtest/gtest.h>

#include "fri/fri_file.h"
#include "store/meta_node.h"
#include "support/hex.h"
#include "tbl/tbl_file.h"

static uint64_t tbl_offset(uint64_t lpa) {
    return ((lpa / 252 + 2048) * 256 + lpa % 252) * 2;
}

static uint64_t fri_offset(uint64_t group) {
    return ((group / 63 + 2048) * 64 + group % 63) * 8;
}

pool_files::pool_files() : tbl_file(1048576), fri_file(1048576) {
    tbl_header table{};
    table.tbl_version = 0x00010000;
    table.tbl_magic_code = 0x0886255218140633;
    table.tbl_type = 1;
    table.tbl_data_offset = 0x100000;
    table.tbl_extent_size = 1048576;
    table.tbl_entry_size = 2;
    table.tbl_total_count = 0x000001F800000000;
    fri_header index{};
    index.fri_version = 0x00010000;
    index.fri_magic_code = 0x0886255218140633;
    index.fri_type = 2;
    index.fri_data_offset = 0x100000;
    index.fri_entry_size = 8;
    index.fri_free_count = 1000000;
    for (int i = 0; i < 16; i++) {
        table.tbl_uuid[i] = static_cast<uint8_t>(i);
        index.fri_uuid[i] = static_cast<uint8_t>(i);
    }
    EXPECT_EQ(tarn_save_meta_nodes(tbl_file.fd(), &table, 2, 0), 0);
    EXPECT_EQ(tarn_save_meta_nodes(fri_file.fd(), &index, 2, 1), 0);
    reload();
}

pool_files::~pool_files() {
    close_tbl();
    close_fri();
}

void pool_files::reload() {
    EXPECT_EQ(load_tbl(tbl_file.path()), 0);
    EXPECT_EQ(load_fri(fri_file.path()), 0);
}

void pool_files::set_tbl(uint64_t lpa, uint16_t word) {
    tbl_file.write_at(tbl_offset(lpa), word);
}

uint16_t pool_files::tbl(uint64_t lpa) const {
    return tbl_file.read_at<uint16_t>(tbl_offset(lpa));
}

void pool_files::fill_group(uint64_t group, uint16_t word) {
    for (uint64_t offset = 0; offset < 4096; offset++) {
        set_tbl(group * 4096 + offset, word);
    }
}

void pool_files::set_fri(uint64_t group, uint32_t next1, uint16_t next2_head, uint16_t count_attr) {
    fri_file.write_at(fri_offset(group), next1);
    fri_file.write_at(fri_offset(group) + 4, next2_head);
    fri_file.write_at(fri_offset(group) + 6, count_attr);
}

std::string pool_files::fri(uint64_t group) const {
    return hex_of(fri_file.bytes(fri_offset(group), 8));
}
