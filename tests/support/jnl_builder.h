// Transactions laid out by hand in a ring, and the files that their records name: a table and an
// index of one pool, and a map of that pool. Offsets are worked out here.
#pragma once

#include <string>
#include <vector>

#include "support/pool_files.h"
#include "support/raw_journal.h"
#include "support/sample_volumes.h"

// Uuids by their first byte; the others count up.
constexpr uint8_t POOL = 0x00;
constexpr uint8_t MAP = 0x40;
constexpr uint8_t ELSEWHERE = 0xa0;  // none of these files has it
uuid_bytes uuid_from(uint8_t first);

constexpr uint64_t MAPPED = 0x8000000000000000;    // of a map entry
constexpr uint64_t EMPTIED = 0x1000000000000000;   // left in the source of a move: byte 7 is 10
constexpr uint64_t FLAGGED = 0x5000000000000000;   // the same with the replay flag: byte 7 is 50
constexpr uint16_t USED = 0x8000;                  // of a table entry
constexpr uint64_t INIT_BIT = 0x8000000000000000;  // of an index entry

// Entries of a FILE block, 64 bytes each. The old images are zero unless they are given.
class raw_entry {
public:
    raw_entry(uint32_t type, uint8_t uuid);
    raw_entry& u16(size_t at, uint16_t value) { return bytes(at, &value, sizeof value); }
    raw_entry& u64(size_t at, uint64_t value) { return bytes(at, &value, sizeof value); }
    [[nodiscard]] const uint8_t* data() const { return entry_; }

private:
    raw_entry& bytes(size_t at, const void* from, size_t len);
    uint8_t entry_[64] = {};
};
raw_entry tbl_record(uint8_t uuid, uint64_t lpa, uint16_t word);
raw_entry fri_record(uint8_t uuid, uint64_t group, uint64_t old_word, uint64_t new_word);
raw_entry var0_record(uint8_t uuid, uint64_t free_count, uint64_t head);
raw_entry map_record(uint8_t uuid, uint64_t lea, uint64_t word, uint64_t mapped_count);

// Blocks without id, sequence number and flags, which raw_history puts in.
raw_block file_block(const std::vector<raw_entry>& entries);
raw_block xcopy_block(uint8_t dst, uint64_t dst_lea, uint8_t count, uint64_t mapped_count);
raw_block moves_block(uint8_t dst, uint64_t dst_lea, uint8_t dst_count, uint8_t src,
                      uint64_t src_lea, uint8_t src_count, uint64_t mapped_count);  // of both sides
raw_block unmap_block(uint8_t dst, uint64_t dst_lea, uint8_t count, uint64_t mapped_count);
raw_block alloc_block(uint8_t dst, uint64_t dst_lea, uint8_t count, uint64_t mapped_count,
                      uint8_t pool);
// The byte where slot 0 lies, of 8-byte map entries and of 2-byte table entries.
constexpr size_t XCOPY_MAPS = 96;
constexpr size_t MOVES_MAPS = 104;
constexpr size_t UNMAP_MAPS = 72;
constexpr size_t ALLOC_MAPS = 128;
constexpr size_t TBL_SLOTS = 416;

// A ring that transactions are written to, the header naming the newest. Open as the current
// journal after load().
class raw_history {
public:
    // The first transaction begins at block `first` and has the id `id`.
    explicit raw_history(uint64_t total, uint64_t first = 0, uint32_t id = 1);
    ~raw_history();  // closes
    raw_history(const raw_history&) = delete;
    raw_history& operator=(const raw_history&) = delete;
    void commit(std::vector<raw_block> blocks);
    void commit(raw_block block) { commit(std::vector<raw_block>{block}); }
    void set_newest(uint32_t id, uint64_t record);  // what the header says
    void set_sync_count(uint32_t count);
    void load();

    raw_journal journal;

private:
    uint64_t total_;
    uint64_t next_;
    uint32_t id_;
};

// The table, the index and the map, each the current one of its kind.
class journalled_files {
public:
    journalled_files();
    ~journalled_files();  // closes all
    journalled_files(const journalled_files&) = delete;
    journalled_files& operator=(const journalled_files&) = delete;
    [[nodiscard]] uint64_t map(uint64_t lea) const { return map_word_of(map_path, lea); }
    void set_map(uint64_t lea, uint64_t word);
    [[nodiscard]] uint64_t mapped_count() const;
    void open_in_handle_set() const;  // the map, so that a record's pool can be looked up
    // Headers and the first 32 blocks of all three, as hexadecimal text.
    [[nodiscard]] std::string all_bytes() const;

    pool_files pool;
    scratch_dir directory;
    const std::string map_path = directory.file("map");
};
