#include "support/jnl_builder.h"

#include <cstring>
#include <gtest/gtest.h>

#include "handles/handle_set.h"
#include "jnl/jnl_file.h"
#include "map/map_entries.h"
#include "map/map_file.h"
#include "support/hex.h"

uuid_bytes uuid_from(uint8_t first) {
    uuid_bytes uuid;
    for (int i = 0; i < 16; i++) {
        uuid.push_back(static_cast<uint8_t>(first + i));
    }
    return uuid;
}

raw_entry& raw_entry::bytes(size_t at, const void* from, size_t len) {
    EXPECT_LE(at + len, sizeof entry_);
    memcpy(entry_ + at, from, len);
    return *this;
}

raw_entry::raw_entry(uint32_t type, uint8_t uuid) {
    bytes(0, &type, sizeof type).bytes(4, uuid_from(uuid).data(), 16);
}

raw_entry tbl_record(uint8_t uuid, uint64_t lpa, uint16_t word) {
    return raw_entry(1, uuid).u64(20, lpa).u16(30, word);
}

raw_entry fri_record(uint8_t uuid, uint64_t group, uint64_t old_word, uint64_t new_word) {
    return raw_entry(2, uuid).u64(20, group).u64(28, old_word).u64(36, new_word);
}

raw_entry var0_record(uint8_t uuid, uint64_t free_count, uint64_t head) {
    return raw_entry(3, uuid).u64(20, 77).u64(28, free_count).u64(36, 78).u64(44, head);
}

raw_entry map_record(uint8_t uuid, uint64_t lea, uint64_t word, uint64_t mapped_count) {
    return raw_entry(4, uuid).u64(20, lea).u64(36, word).u64(44, 79).u64(52, mapped_count);
}

raw_block file_block(const std::vector<raw_entry>& entries) {
    raw_block block(0, 0, 0);
    block.u8(12, static_cast<uint8_t>(entries.size()));
    for (size_t i = 0; i < entries.size(); i++) {
        block.bytes(32 + 64 * i, entries[i].data(), 64);
    }
    return block;
}

raw_block xcopy_block(uint8_t dst, uint64_t dst_lea, uint8_t count, uint64_t mapped_count) {
    raw_block block(0, 0, 0);
    block.u32(32, 5).uuid(36, dst).uuid(52, ELSEWHERE).u64(68, dst_lea);
    return block.u8(84, count).u64(88, mapped_count);
}

raw_block moves_block(uint8_t dst, uint64_t dst_lea, uint8_t dst_count, uint8_t src,
                      uint64_t src_lea, uint8_t src_count, uint64_t mapped_count) {
    raw_block block(0, 0, 0);
    block.u32(32, 6).uuid(36, dst).uuid(52, src).u64(68, dst_lea).u64(76, src_lea);
    block.u8(84, dst_count).u8(85, src_count);
    return block.u64(88, mapped_count).u64(96, mapped_count);
}

raw_block unmap_block(uint8_t dst, uint64_t dst_lea, uint8_t count, uint64_t mapped_count) {
    raw_block block(0, 0, 0);
    return block.u32(32, 7).uuid(36, dst).u64(52, dst_lea).u8(60, count).u64(64, mapped_count);
}

raw_block alloc_block(uint8_t dst, uint64_t dst_lea, uint8_t count, uint64_t mapped_count,
                      uint8_t pool) {
    raw_block block(0, 0, 0);
    block.u32(32, 8).uuid(36, dst).u64(52, dst_lea).u8(60, count).u64(64, mapped_count);
    return block.uuid(72, pool);
}

raw_history::raw_history(uint64_t total, uint64_t first, uint32_t id)
    : journal(total), total_(total), next_(first), id_(id) {
}

raw_history::~raw_history() {
    close_jnl();
}

void raw_history::commit(std::vector<raw_block> blocks) {
    const uint64_t start = next_;
    for (size_t i = 0; i < blocks.size(); i++) {
        const bool is_last = i + 1 == blocks.size();
        blocks[i].u32(0, id_).u16(4, static_cast<uint16_t>(i)).u16(6, is_last ? 1 : 0);
        journal.put(next_, blocks[i]);
        next_ = (next_ + 1) % total_;
    }
    set_newest(id_++, start);
}

void raw_history::set_newest(uint32_t id, uint64_t record) {
    journal.set_meta(4164, &id, sizeof id);
    journal.set_meta(4168, &record, sizeof record);
}

void raw_history::set_sync_count(uint32_t count) {
    journal.set_meta(4104, &count, sizeof count);
}

void raw_history::load() {
    close_jnl();
    ASSERT_EQ(load_jnl(journal.path()), 0);
}

journalled_files::journalled_files() {
    make_map(map_path, uuid_from(MAP), uuid_from(POOL));
    EXPECT_EQ(load_map(map_path.c_str()), 0);
    init_handle_set();
}

journalled_files::~journalled_files() {
    close_map();
    EXPECT_EQ(finish_handle_set(), 0);
}

void journalled_files::set_map(uint64_t lea, uint64_t word) {
    const map_entry entry = {word};
    EXPECT_EQ(map_entry_write(&entry, lea), 0);
}

uint64_t journalled_files::mapped_count() const {
    uint64_t count = 0;
    memcpy(&count, file_bytes(map_path, 4100, sizeof count).data(), sizeof count);
    return count;
}

void journalled_files::open_in_handle_set() const {
    EXPECT_EQ(load_as_handle(map_path.c_str()), 0);
}

// The lines of sixteen bytes that are not all zero, each after its offset.
static std::string written_lines(const std::string& path, uint64_t offset, size_t len) {
    const std::string blank = hex_of(std::vector<uint8_t>(16, 0));
    std::string text;
    for (uint64_t at = offset; at < offset + len; at += 16) {
        const std::string line = hex_of(file_bytes(path, at, 16));
        text += line == blank ? "" : std::to_string(at) + ": " + line;
    }
    return text;
}

std::string journalled_files::all_bytes() const {
    std::string text;
    for (const std::string& path :
         {map_path, std::string(pool.tbl_file.path()), std::string(pool.fri_file.path())}) {
        text += written_lines(path, 0, 128) + written_lines(path, 4096, 192) +
                written_lines(path, 1048576, 32 * 512);
    }
    return text;
}
