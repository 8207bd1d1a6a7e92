// A table and an index of one pool, open as the current ones, whose bytes a test lays out and reads
// without the code under test: offsets are worked out here, not by the formats' own helpers.
#pragma once

#include <cstdint>
#include <string>

#include "fri/fri_format.h"
#include "support/scratch_file.h"
#include "tbl/tbl_format.h"

class pool_files {
public:
    pool_files();   // sound headers, entries never written; the files end where the entries begin
    ~pool_files();  // closes both
    pool_files(const pool_files&) = delete;
    pool_files& operator=(const pool_files&) = delete;

    void set_tbl(uint64_t lpa, uint16_t word);
    [[nodiscard]] uint16_t tbl(uint64_t lpa) const;
    void fill_group(uint64_t group, uint16_t word);  // all 4096 entries

    void set_fri(uint64_t group, uint32_t next1, uint16_t next2_head, uint16_t count_attr);
    [[nodiscard]] std::string fri(uint64_t group) const;  // 8 bytes as hexadecimal pairs

    void reload();  // both, from disk

    scratch_file tbl_file;
    scratch_file fri_file;
};
