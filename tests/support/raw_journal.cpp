#include "support/raw_journal.h"

#include <cstring>
#include <gtest/gtest.h>

#include "store/crc32c.h"

raw_block::raw_block(uint32_t trans_id, uint16_t seq, uint16_t flags) {
    u32(0, trans_id).u16(4, seq).u16(6, flags);
}

raw_block& raw_block::uuid(size_t at, uint8_t first) {
    for (size_t i = 0; i < 16; i++) {
        u8(at + i, static_cast<uint8_t>(first + i));
    }
    return *this;
}

raw_block& raw_block::bytes(size_t at, const void* from, size_t len) {
    EXPECT_LE(at + len, sizeof block_);
    memcpy(block_ + at, from, len);
    return *this;
}

raw_journal::raw_journal(uint64_t total) : file_(1048576) {
    const uint64_t magic = 0x0886255218140633;
    set_meta(8, &magic, sizeof magic);
    set_meta(68, &total, sizeof total);
}

void raw_journal::set_meta(uint64_t at, const void* value, size_t len) {
    file_.write_bytes(at, value, len);
    std::vector<uint8_t> node = file_.bytes(at / 64 * 64, 64);
    memset(node.data(), 0, 4);
    uint32_t checksum = 0;
    tarn_crc32c(node.data(), 64, &checksum);
    file_.write_at(at / 64 * 64, checksum);
}

void raw_journal::put(uint64_t n, const raw_block& block) {
    uint32_t checksum = 0;
    tarn_crc32c(block.data(), 512, &checksum);
    const uint64_t at = (n + 2048) * 512;
    file_.write_bytes(at, block.data(), 508);
    file_.write_at(at + 508, checksum);
}

void raw_journal::put_damaged(uint64_t n, const raw_block& block) {
    put(n, block);
    const uint64_t at = (n + 2048) * 512 + 508;
    file_.write_at(at, ~file_.read_at<uint32_t>(at));
}
