// Two volumes, a space that is not a volume, and a journal directory, all named by the platform
// configuration; and metadata files of a few entries to put there.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "jnl/jnl_format.h"

// Alive: an empty tree, the platform configured for it, the option record zero, the option scanner
// at its start, no write that failed.
class sample_volumes {
public:
    sample_volumes();
    ~sample_volumes();  // removes everything below the root
    sample_volumes(const sample_volumes&) = delete;
    sample_volumes& operator=(const sample_volumes&) = delete;
    [[nodiscard]] std::string root() const;
    [[nodiscard]] std::string volume(unsigned number) const;  // "<root>/volume<1 or 2>"
    [[nodiscard]] std::string other() const;                  // enumerated, but not a volume
    [[nodiscard]] std::string journal() const;                // "<root>/journal/EP_JNL"
    // Each pause and resume of the service so far, a line each: the call, its service, its reason.
    [[nodiscard]] std::string service_calls() const;
    void let_service_fail(const std::string& call) const;  // "pause" or "resume"
    void let_platform_fail() const;                        // every call that is configured
};

// The tree of a volume whose index knows no group yet, so that index and table agree. The uuid of
// both is 16 times `uuid_byte`.
void make_sample_volume(const std::string& volume, uint8_t uuid_byte);
void make_directories(const std::string& path);  // and their parents
void make_empty_file(const std::string& path);   // and the directories above it

using uuid_bytes = std::vector<uint8_t>;
uuid_bytes uuid_of(uint8_t byte);           // 16 times the byte
uuid_bytes uuid_of_number(uint32_t value);  // "MAP", a zero, the number, zeros

// Metadata files of valid headers. The table's and the index's entries are all zero.
void make_tbl(const std::string& path, const uuid_bytes& uuid);
void make_fri(const std::string& path, const uuid_bytes& uuid, uint64_t free_count);
// 126 unmapped entries; the only row of the pool table is `pool`.
void make_map(const std::string& path, const uuid_bytes& uuid, const uuid_bytes& pool);
// `blocks` from block 0 on, one transaction each, with ids 1, 2, ... and valid checksums; without
// blocks: a journal that was never used. The ring has 64 blocks.
void make_jnl(const std::string& path, uint32_t status, std::vector<jnl_block> blocks);
uint32_t jnl_status_of(const std::string& path);

// A block that copies one extent to lea 0 of the map `destination`.
jnl_block xcopy_block(const uuid_bytes& destination, uint64_t lpa, uint16_t tbl_word);
// A block that records one entry of a table.
jnl_block tbl_block(const uuid_bytes& table, uint64_t lpa, uint16_t tbl_word);
// A block that records one entry of an index: its count with the init bit, before and after.
jnl_block fri_block(const uuid_bytes& index, uint64_t group, uint16_t before, uint16_t after);

uint16_t tbl_word_of(const std::string& path, uint64_t lpa);
uint64_t map_word_of(const std::string& path, uint64_t lea);

// argv of a run: "tarn" and the words. Restarts the option scanner.
class arguments {
public:
    arguments(std::vector<std::string> words);
    [[nodiscard]] int count() const { return static_cast<int>(words_.size()); }
    [[nodiscard]] char** values() { return pointers_.data(); }

private:
    std::vector<std::string> words_;
    std::vector<char*> pointers_;
};
