// What every metadata file has in common: the magic code, the type words, the sizes of its nodes
// and the head of its header. Ground floor: includes nothing of this project.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "integers on disk are little-endian and are used without conversion");

constexpr uint64_t METADATA_MAGIC_CODE = 0x0886255218140633;

// The type word of a metadata header; 3 occurs in journal records only (the index's variable part).
enum metadata_file_type : uint32_t {
    FILE_TYPE_TBL = 1,
    FILE_TYPE_FRI = 2,
    FILE_TYPE_FRI_VAR0 = 3,
    FILE_TYPE_MAP = 4,
};

constexpr size_t META_NODE_SIZE = 64;        // bytes; the first four hold the node's CRC-32C
constexpr size_t DATA_NODE_SIZE = 512;       // bytes; the last four hold the node's CRC-32C
constexpr uint64_t META_VAR_NODE_BASE = 64;  // node index of variable node 0 (byte 4096)
constexpr uint64_t METADATA_DATA_OFFSET = 1u << 20;  // byte where the 512-byte blocks begin
constexpr size_t UUID_SIZE = 16;
constexpr size_t PATH_TEXT_SIZE = 4096;  // bytes of a path text, the closing zero included

// Constant node 0 of every metadata file.
struct [[gnu::packed]] metadata_head {
    uint32_t checksum;    //  0
    uint32_t version;     //  4
    uint64_t magic_code;  //  8: METADATA_MAGIC_CODE
    uint32_t file_type;   // 16: metadata_file_type; journal and data files have their own values
    uint8_t uuid[UUID_SIZE];  // 20: raw bytes, in the order of their hexadecimal text
    uint8_t of_kind[28];      // 36: each kind's own fields
};
static_assert(offsetof(metadata_head, version) == 4);
static_assert(offsetof(metadata_head, magic_code) == 8);
static_assert(offsetof(metadata_head, file_type) == 16);
static_assert(offsetof(metadata_head, uuid) == 20);
static_assert(sizeof(metadata_head) == META_NODE_SIZE);
static_assert(std::is_trivially_copyable_v<metadata_head>);

// Byte offset in a table of the extent size (bytes, 32 bits), in constant node 1. Here because the
// default platform reads it too.
constexpr size_t TBL_EXTENT_SIZE_OFFSET = 68;

inline bool uuid_equal(const uint8_t* a, const uint8_t* b) {
    return memcmp(a, b, UUID_SIZE) == 0;
}
