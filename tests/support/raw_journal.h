// A journal whose bytes a test lays out by hand: the offsets are those of the test, not of the
// formats' own records.
#pragma once

#include <cstdint>

#include "support/scratch_file.h"

// One block of the ring; `at` counts from its first byte. Its checksum is put in by raw_journal.
class raw_block {
public:
    raw_block(uint32_t trans_id, uint16_t seq, uint16_t flags);
    raw_block& u8(size_t at, uint8_t value) { return bytes(at, &value, sizeof value); }
    raw_block& u16(size_t at, uint16_t value) { return bytes(at, &value, sizeof value); }
    raw_block& u32(size_t at, uint32_t value) { return bytes(at, &value, sizeof value); }
    raw_block& u64(size_t at, uint64_t value) { return bytes(at, &value, sizeof value); }
    raw_block& uuid(size_t at, uint8_t first);  // first, first + 1, ..., sixteen of them
    raw_block& bytes(size_t at, const void* from, size_t len);
    [[nodiscard]] const uint8_t* data() const { return block_; }

private:
    uint8_t block_[512] = {};
};

class raw_journal {
public:
    explicit raw_journal(uint64_t total);  // blocks of the ring, none of them written
    [[nodiscard]] const char* path() const { return file_.path(); }
    // A field of the four meta nodes, at its byte in the file: its node gets a fresh checksum.
    void set_meta(uint64_t at, const void* value, size_t len);
    void put(uint64_t n, const raw_block& block);          // with its checksum
    void put_damaged(uint64_t n, const raw_block& block);  // with a wrong one

private:
    scratch_file file_;
};
